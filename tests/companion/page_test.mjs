// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// The pages in a real browser, as somebody uses them: by pointer, by keyboard, as text.

import assert from 'node:assert/strict';
import {spawnSync} from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import {after, before, test} from 'node:test';

import {awkwardProfile} from './awkward_profile.mjs';
import {folder, open, program} from './browser.mjs';

const report = awkwardProfile(100000);
const input = path.join(folder, 'large.txt');
const output = path.join(folder, 'large.html');
fs.writeFileSync(input, report.text);
const stacks = report.threads.flatMap((thread) =>
    [...thread.stacks].map(([key, weight]) => ({frames: key.split('\n'), weight})));
const weightOf = (matches) => stacks.filter(({frames}) => matches(frames))
    .reduce((sum, {weight}) => sum + weight, 0);
const number = (value) => new Intl.NumberFormat('en').format(value);

function run(...words) {
    const {status, stdout, stderr} = spawnSync(program, words, {encoding: 'utf8'});
    assert.equal(status, 1, stderr);  // frames without names
    return stdout;
}

let session;
before(async () => {
    run('convert', input, '-o', output);
    session = await open(`file://${output}`, {viewport: {width: 1100, height: 700}});
});
after(() => session.browser.close());

const show = (view) => session.page.click(`[data-view=${view}]`);
const text = (selector) => session.page.textContent(selector);

test('draws in both schemes', async () => {
    const {page} = session;
    const colors = async (scheme) => {
        await page.waitForFunction((wanted) =>
            document.documentElement.dataset.scheme === wanted, scheme);
        return page.evaluate(() => {
            const canvas = document.querySelector('#graph canvas');
            const copy = new OffscreenCanvas(canvas.width, canvas.height)
                .getContext('2d', {willReadFrequently: true});
            copy.drawImage(canvas, 0, 0);
            const {data} = copy.getImageData(0, 0, canvas.width, canvas.height);
            return {back: getComputedStyle(document.body).backgroundColor,
                count: new Set(new Uint32Array(data.buffer)).size};
        });
    };
    const light = await colors('light');
    await page.emulateMedia({colorScheme: 'dark'});
    const dark = await colors('dark');
    assert.notEqual(dark.back, light.back);
    assert.ok(Math.min(dark.count, light.count) > 10, 'a picture has colours');
    await page.click('#scheme');
    assert.deepEqual(await colors('light'), light);
});

test('finds', async () => {
    const {page} = session;
    await page.keyboard.press('/');
    await page.keyboard.type('LIB 1.so+0x1');
    const found = weightOf((frames) => frames.some((frame) => frame.startsWith('lib 1.so+0x1')));
    assert.ok((await text('#found')).includes(`: ${number(found)} samples`));
    await page.keyboard.type('no such');
    assert.equal(await text('#found'), 'not found');
    await page.keyboard.press('Escape');
    assert.equal(await text('#found'), '');
});

test('zooms', async () => {
    const {page} = session;
    const roots = new Map();
    for (const {frames, weight} of stacks) {
        roots.set(frames[0], (roots.get(frames[0]) ?? 0) + weight);
    }
    roots.delete('');
    const [heaviest, weight] = [...roots].sort((a, b) => b[1] - a[1])[0];
    await page.focus('#graph canvas');
    for (const [view, away] of [['flame', 'ArrowUp'], ['icicle', 'ArrowDown']]) {
        await show(view);
        await page.focus('#graph canvas');
        await page.keyboard.press(away);
        assert.ok((await text('#words')).startsWith(`${heaviest} – ${number(weight)} samples`));
        assert.ok(await page.isHidden('#reset'));
        await page.keyboard.press('Enter');
        assert.ok(await page.isVisible('#reset'));
        await page.keyboard.press('Escape');
        assert.ok(await page.isHidden('#reset'));
    }
    // The outermost functions are the second row of the icicle, heaviest first.
    await page.click('#graph canvas', {position: {x: 3, y: 30}});
    assert.ok((await text('#words')).startsWith(heaviest));
    await page.click('#reset');
    assert.ok(await page.isHidden('#reset'));
});

test('shows one thread', async () => {
    const {page} = session;
    const thread = report.threads[2];
    await page.selectOption('#thread', {label: `${thread.label} (${number(thread.samples)})`});
    await show('calls');
    assert.ok((await text('#words')).startsWith(
        `${thread.label} – ${number(thread.samples)} samples`));
    assert.equal(await page.getAttribute('#calls tbody tr', 'aria-expanded'), 'true');
    const levels = await page.locator('#calls tbody tr[aria-level="2"]').count();
    assert.equal(levels, Math.min(200 + 1, new Set([...thread.stacks.keys()]
        .map((key) => key.split('\n')[0])).size));
    await page.selectOption('#thread', {value: '-1'});
});

test('weighs functions', async () => {
    const {page} = session;
    const own = new Map();
    for (const {frames, weight} of stacks) {
        own.set(frames.at(-1), (own.get(frames.at(-1)) ?? 0) + weight);
    }
    own.delete('');
    const [heaviest] = [...own].sort((a, b) => b[1] - a[1])[0];
    await show('functions');
    const row = page.locator('#functions tbody tr').first();
    assert.equal(await row.locator('.function').textContent(), heaviest);
    assert.equal(await row.locator('td').first().getAttribute('title'),
        `${number(own.get(heaviest))} samples`);
    // A function that calls itself has each sample once.
    await row.press('Enter');
    assert.equal(await text('#pivot-name'), heaviest);
    const total = weightOf((frames) => frames.includes(heaviest));
    assert.ok((await text('#words')).startsWith(`${heaviest} – ${number(total)} samples`));
    await page.focus('#callers canvas');
    await page.keyboard.press('Home');
    assert.ok((await text('#words')).startsWith(`${heaviest} – ${number(total)} samples`));
});

test('has no outside and no complaints', async () => {
    const {page, complaints, requests} = session;
    await page.setViewportSize({width: 400, height: 700});
    await page.reload();
    assert.equal(await text('[role=tab][aria-selected=true]'), 'Call table');
    assert.deepEqual(new Set(requests), new Set([`file://${output}`]));
    assert.deepEqual(complaints, []);
});

test('compares', async () => {
    // The same with the first thread left out, so that all of it was gained.
    const less = path.join(folder, 'less.txt');
    const picture = path.join(folder, 'difference.html');
    const [head, , rest] = report.text.split(/^(?=Thread 10[01])/m);
    const samples = report.samples - report.threads[0].samples;
    fs.writeFileSync(less, head.replace(/count: \d+/, `count: ${samples}`) + rest);
    // Every sample of the first thread is below one of its outermost functions.
    const lines = run('compare', less, input, '--all').split(/^Total time.*$/m)[1]
        .split('\n').filter((line) => line.includes('root 0.so'));
    const gains = lines.map((line) => Number(line.trim().split(' ')[0]));
    const gain = gains.reduce((sum, points) => sum + points, 0);
    const share = 100 * report.threads[0].samples / report.samples;
    assert.ok(Math.abs(gain - share) < 0.005 * lines.length, `${gain} points, not ${share}`);
    assert.ok(lines.every((line) => line.includes(' 0.00 % ')), lines.join('\n'));
    run('compare', less, input, '--html', picture);
    const {browser, page, complaints} = await open(`file://${picture}`);
    await page.click('[data-view=functions]');
    await page.click('[data-sort=change]');
    await page.fill('#search', 'root 0.so');
    const gained = await page.locator('#functions tbody .change').allTextContents();
    assert.ok(gained.every((change) => change.startsWith('+')), gained.join());
    await page.selectOption('#widths', 'before');
    assert.equal(await page.textContent('#found'), 'not found');
    assert.deepEqual(complaints, []);
    await browser.close();
});

/** For the eyes: of the report that is given, or else of the one above. */
test('has its picture taken', async () => {
    const demo = process.env.THREAD_UTILITIES_DEMO_PAGE;
    const {browser, page} = await open(`file://${demo ?? output}`,
        {viewport: {width: 1100, height: 600}});
    await page.waitForFunction(() => document.querySelector('#graph canvas').width > 300);
    await page.screenshot({path: path.join(folder, 'page.png')});
    await browser.close();
});
