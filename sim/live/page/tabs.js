// Tabs, one of which is open: with the arrows, Home and End as with the pointer.

const TURNS = {
    ArrowRight: (at, count) => (at + 1) % count,
    ArrowLeft: (at, count) => (at + count - 1) % count,
    Home: () => 0,
    End: (at, count) => count - 1,
};

export function makeTabs(list) {
    const tabs = [...list.querySelectorAll('[role="tab"]')];
    const show = (chosen) => {
        for (const tab of tabs) {
            const isChosen = tab === chosen;
            tab.setAttribute('aria-selected', isChosen);
            tab.tabIndex = isChosen ? 0 : -1;
            document.getElementById(tab.getAttribute('aria-controls')).hidden = !isChosen;
        }
    };
    for (const tab of tabs)
        tab.addEventListener('click', () => show(tab));
    list.addEventListener('keydown', (event) => {
        const turn = TURNS[event.key];
        if (!turn)
            return;
        event.preventDefault();
        const next = tabs[turn(tabs.indexOf(document.activeElement), tabs.length)];
        show(next);
        next.focus();
    });
    show(tabs[0]);
}
