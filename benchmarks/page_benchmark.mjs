// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// How long somebody waits for the page of a profile with 100,000 nodes. Needs what
// `./dev test companion` has built and installed:
//
//   node benchmarks/page_benchmark.mjs

import {spawnSync} from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';

process.env.THREAD_UTILITIES_TEST_FOLDER ??= path.resolve('build/test-companion');
process.env.THREAD_UTILITIES_PROGRAM ??= path.resolve('build/dev/companion/thread-utilities');
const {awkwardProfile} = await import('../tests/companion/awkward_profile.mjs');
const {folder, open, program} = await import('../tests/companion/browser.mjs');

const input = path.join(folder, 'page_benchmark.txt');
const output = path.join(folder, 'page_benchmark.html');
const report = awkwardProfile(100000);
fs.writeFileSync(input, report.text);
const begin = performance.now();
spawnSync(program, ['convert', input, '-o', output]);
console.log(`convert      ${Math.round(performance.now() - begin)} ms, ` +
    `${fs.statSync(output).size} bytes`);

const {browser, page} = await open('about:blank', {viewport: {width: 1200, height: 720}});
const median = (times) => times.sort((a, b) => a - b)[Math.floor(times.length / 2)].toFixed(1);
const opened = [];
for (let round = 0; round < 5; ++round) {
    await page.goto(`file://${output}`);
    opened.push(await page.evaluate(() =>
        performance.getEntriesByType('navigation')[0].domComplete));
}
console.log(`open         ${median(opened)} ms, from the request to the picture`);
const actions = {
    'draw         ': 'graph.draw()',
    'all threads  ': 'showThread(-1)',
    'one thread   ': 'showThread(2)',
    'search       ': "byId('search').value = 'lib 1.so+0x1'; updateFound(); graph.draw()",
    'sandwich     ': 'pivotOn(5)',
    'call table   ': "showView('calls')",
    'functions    ': "showView('functions')",
};
for (const [name, action] of Object.entries(actions)) {
    await page.evaluate("showThread(-1); showView('flame')");
    const times = await page.evaluate(`Array.from({length: 9}, () => {
        const begin = performance.now();
        ${action};
        document.body.offsetHeight;
        return performance.now() - begin;
    })`);
    console.log(`${name}${median(times)} ms`);
}
await browser.close();
