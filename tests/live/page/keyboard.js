// A person at the live page who has a keyboard and nothing else.

import assert from 'node:assert/strict';

// Presses Tab until an element has the focus, and sees on the way that each that has it shows it
// and isn't covered. The focus leaves the page's elements at most once, from the last to the first.
export async function tabTo(stage, selector) {
    let turns = 0;
    for (let pressed = 0; pressed < 200; pressed++) {
        await stage.page.keyboard.press('Tab');
        const found = await stage.page.evaluate(async (wanted) => {
            const active = document.activeElement;
            const shown = active.matches('.button input') ? active.parentElement : active;
            const {outlineStyle, outlineWidth} = getComputedStyle(shown);
            let hit = null;
            // What comes meanwhile may cover it for a frame.
            for (let frame = 0; frame < 2 || (frame < 20 && !shown.contains(hit)); frame++) {
                await new Promise((resolve) => requestAnimationFrame(resolve));
                const {left, right, top, bottom} = shown.getBoundingClientRect();
                hit = document.elementFromPoint(
                    (Math.max(left, 0) + Math.min(right, innerWidth)) / 2,
                    (Math.max(top, 0) + Math.min(bottom, innerHeight)) / 2);
            }
            return {
                isHit: shown.contains(hit),
                hit: hit?.outerHTML.slice(0, 200),
                isThere: active.matches(wanted),
                isShown: outlineStyle !== 'none' && parseFloat(outlineWidth) >= 2,
                name: active.outerHTML.slice(0, 200),
                isNone: active === document.body,
            };
        }, selector);
        turns += found.isNone;
        assert.ok(turns <= 1, 'the focus is on nothing');
        assert.ok(found.isShown || found.isNone, `the focus is not seen: ${found.name}`);
        assert.ok(found.isHit, `${found.name} is covered by ${found.hit}`);
        if (found.isThere)
            return;
    }
    assert.fail(`${selector} is not reached`);
}

// Presses a key on what has the focus, and sees that this has it still when all is done.
export async function pressHere(stage, key, done) {
    const here = await stage.page.evaluateHandle(() => document.activeElement);
    assert.equal(await here.evaluate((active) => active !== document.body), true);
    await stage.page.keyboard.press(key);
    await done();
    await stage.idle();
    assert.equal(await here.evaluate((active) => active === document.activeElement), true,
                 `the focus went to ${await stage.page.evaluate(() =>
                     document.activeElement.outerHTML.slice(0, 200))}`);
}
