// Puts the page together: one model that follows the server, and the views of it.

import {Actions} from './actions.js';
import {CodecView} from './codec_view.js';
import {find, guardButtons} from './dom.js';
import {FaultsView} from './faults_view.js';
import {FileView} from './file_view.js';
import {Live} from './live.js';
import {CallsView, followCommands, followReports} from './logs_view.js';
import {GuideSwitches, OutputsView} from './outputs_view.js';
import {PaletteView} from './palette_view.js';
import {ParametersView} from './parameters_view.js';
import {SlotsView} from './slots_view.js';
import {StatusView} from './status_view.js';
import {makeTabs} from './tabs.js';
import {ZoomView} from './zoom_view.js';

const live = new Live();
const actions = new Actions();
const guides = new GuideSwitches(live);
const zoom = new ZoomView(live, guides);

new StatusView(live, actions);
new OutputsView(live, guides, actions, (post) => zoom.open(post));
new SlotsView(live);
new ParametersView(live, actions);
new FileView(live, actions);
new FaultsView(live, actions);
new PaletteView(live, actions);
new CodecView(live, actions);
new CallsView(live);
followCommands(actions);
followReports(live);
makeTabs(find('#control .tabs'));
guardButtons();
// What is to be changed has to be known first.
live.addEventListener('state', () =>
    document.querySelectorAll('[inert]').forEach((each) => (each.inert = false)), {once: true});
live.follow();
