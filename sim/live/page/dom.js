// Making and updating elements without a framework.

export function find(selector, root = document) {
    return root.querySelector(selector);
}

// An element with properties and children, which may be elements and texts. `attributes`, `dataset`
// and `on` (listeners by event) are taken apart; other properties are set as they are.
export function element(name, {attributes = {}, dataset = {}, on = {}, ...rest} = {}, ...children) {
    const made = document.createElement(name);
    Object.assign(made, rest);
    Object.assign(made.dataset, dataset);
    for (const [attribute, value] of Object.entries(attributes))
        made.setAttribute(attribute, value);
    for (const [event, listener] of Object.entries(on))
        made.addEventListener(event, listener);
    made.append(...children);
    return made;
}

// Sets a text only if it is another one, so that nothing is announced or laid out for nothing.
export function setText(target, text) {
    if (target.textContent !== text)
        target.textContent = text;
}

// Shows a text in a place that isn't there for an empty one.
export function showText(target, text) {
    setText(target, text);
    target.hidden = text === '';
}

// Has a check box set what it is for. The function that this gives has it show what the state says.
// What the user chose isn't taken back when the answer comes, for the state that says so may come
// later.
export function showSwitch(box, isOn, set) {
    let setting = 0;
    const show = () => {
        if (setting === 0)
            box.checked = isOn();
    };
    box.addEventListener('change', async () => {
        setting++;
        const {good} = await set(box.checked);
        setting--;
        if (!good)
            show();
    });
    return show;
}

// Keeps what has the focus in view when a part of the page that scrolls gets smaller.
export function keepFocusInView(part) {
    new ResizeObserver(() => {
        if (part.contains(document.activeElement))
            document.activeElement.scrollIntoView({block: 'nearest'});
    }).observe(part);
}

// Switches a button off or on. One that is off can have the focus: it may go off by the very key
// that was pressed on it, and the next key would begin at the top of the page.
export function setOff(button, isOff) {
    button.setAttribute('aria-disabled', Boolean(isOff));
}

// Keeps clicks from buttons that are off; Return in a form's field is a click on its button, too.
export function guardButtons() {
    document.addEventListener('click', (event) => {
        if (!event.target.closest('[aria-disabled="true"]'))
            return;
        event.preventDefault();
        event.stopImmediatePropagation();
    }, true);
}

// The rows of a list or table by key: keeps those that stay, so that focus and selection do, too.
export function syncRows(parent, items, keyOf, make, update) {
    const old = new Map([...parent.children].map((child) => [child.dataset.key, child]));
    items.forEach((item, at) => {
        const key = String(keyOf(item));
        let row = old.get(key);
        old.delete(key);
        if (!row) {
            row = make(item);
            row.dataset.key = key;
        }
        if (parent.children[at] !== row)
            parent.insertBefore(row, parent.children[at] ?? null);
        update(row, item);
    });
    for (const row of old.values())
        row.remove();
}

// Runs at most once a frame, however often it is called.
export function oncePerFrame(run) {
    let isDue = false;
    return () => {
        if (isDue)
            return;
        isDue = true;
        requestAnimationFrame(() => {
            isDue = false;
            run();
        });
    };
}
