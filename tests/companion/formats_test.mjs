// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Each format, read back by a reader of somebody else's, has the weights of the report.

import assert from 'node:assert/strict';
import {spawn, spawnSync} from 'node:child_process';
import {once} from 'node:events';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import {test} from 'node:test';
import zlib from 'node:zlib';

import {awkwardProfile} from './awkward_profile.mjs';
import {folder, modules, open, program} from './browser.mjs';

const report = awkwardProfile(2000);
const input = path.join(folder, 'awkward.txt');
fs.writeFileSync(input, report.text);

function convert(name, ...options) {
    const output = path.join(folder, name);
    const run = spawnSync(program, ['convert', input, '-o', output, ...options],
        {encoding: 'utf8'});
    // No file on any machine has these modules.
    assert.equal(run.status, 1, run.stderr);
    return output;
}

const sorted = (stacks) => [...stacks].sort(([left], [right]) => (left < right ? -1 : 1));

function sum(stacks) {
    const result = new Map();
    for (const [key, weight] of stacks) {
        result.set(key, (result.get(key) ?? 0) + weight);
    }
    return sorted(result);
}

const withThread = report.threads.flatMap(({label, stacks}) =>
    [...stacks].map(([key, weight]) => [key ? `${label}\n${key}` : label, weight]));

test('folded', () => {
    const lines = fs.readFileSync(convert('awkward.folded'), 'utf8').trimEnd().split('\n');
    const unescape = (name) => name.replace(/\\x(..)/g,
        (_, code) => String.fromCharCode(parseInt(code, 16)));
    assert.deepEqual(sorted(lines.map((line) => {
        const end = line.lastIndexOf(' ');
        return [line.slice(0, end).split(';').map(unescape).join('\n'),
            Number(line.slice(end + 1))];
    })), sum(withThread));
});

test('pprof', async () => {
    const {Profile} = (await import(modules('pprof-format'))).default;
    const profile = Profile.decode(zlib.gunzipSync(fs.readFileSync(convert('awkward.pb.gz'))));
    const text = (id) => profile.stringTable.strings[Number(id)];
    const mappings = new Map(profile.mapping.map((each) => [each.id, each]));
    const locations = new Map(profile.location.map((each) => [each.id, each]));
    const stacks = profile.sample.map((sample) => {
        const frames = sample.locationId.map((id) => {
            const {mappingId, address} = locations.get(id);
            const mapping = mappings.get(mappingId);
            if (!mapping) {
                return null;
            }
            assert.equal(text(mapping.buildId), 'e73e88b57bd2b721f8a9228ed6808b85');
            const offset = BigInt(address) - BigInt(mapping.memoryStart) + 1n;
            assert.ok(BigInt(address) < BigInt(mapping.memoryLimit));
            return `${text(mapping.filename)}+0x${offset.toString(16).toUpperCase()}`;
        }).filter(Boolean).reverse();
        const labels = Object.fromEntries(sample.label.map((each) =>
            [text(each.key), text(each.str) || Number(each.num)]));
        const thread = report.threads.find((each) => each.id === labels.thread_id);
        assert.equal(labels.thread, thread.label);
        return [[labels.thread, ...frames].join('\n'), Number(sample.value[0])];
    });
    assert.deepEqual(sum(stacks), sum(withThread));
});

/** Own samples of a file of speedscope's, profile by profile. */
function speedscopeWeights(file) {
    return file.profiles.map((profile) => {
        const stacks = [];
        const open = [];
        let at = profile.startValue;
        const add = (weight) => {
            if (weight > 0) {
                stacks.push([open.map((frame) => file.shared.frames[frame].name).join('\n'),
                    weight]);
            }
        };
        for (const event of profile.events ?? []) {
            add(event.at - at);
            at = event.at;
            if (event.type === 'O') {
                open.push(event.frame);
            } else {
                assert.equal(open.pop(), event.frame);
            }
        }
        if (profile.type === 'evented') {
            add(profile.endValue - at);
        }
        (profile.samples ?? []).forEach((frames, index) => {
            open.splice(0, open.length, ...frames);
            add(profile.weights[index]);
        });
        return {name: profile.name, stacks: sum(stacks)};
    });
}

test('speedscope', async () => {
    const output = convert('awkward.speedscope.json');
    const file = JSON.parse(fs.readFileSync(output, 'utf8'));
    const release = path.join(path.dirname(modules('speedscope/package.json')), 'dist/release');
    const {default: Ajv} = await import(modules('ajv'));
    const schema = JSON.parse(fs.readFileSync(path.join(release, 'file-format-schema.json')));
    const validate = new Ajv({strict: false}).compile(schema);
    assert.ok(validate(file), JSON.stringify(validate.errors));

    // The viewer itself reads it and saves what it has read.
    const loader = path.join(folder, 'load.js');
    fs.writeFileSync(loader, 'speedscope.loadFileFromBase64("awkward.speedscope.json", ' +
        `"${fs.readFileSync(output).toString('base64')}")`);
    const {page, browser} = await open(`file://${release}/index.html#localProfilePath=${loader}`);
    await page.getByText('All threads').first().waitFor();
    const [download] = await Promise.all([
        page.waitForEvent('download'), page.keyboard.press('Control+s')]);
    const saved = JSON.parse(fs.readFileSync(await download.path(), 'utf8'));
    await browser.close();
    const expected = [
        {name: 'All threads', stacks: sum(report.threads.flatMap(({stacks}) => [...stacks]))},
        ...report.threads.map(({label, stacks}) => ({name: label, stacks: sum(stacks)})),
    ];
    assert.deepEqual(speedscopeWeights(file), expected);
    const withFrames = ({name, stacks}) => ({name, stacks: stacks.filter(([key]) => key)});
    assert.deepEqual(speedscopeWeights(saved).map(withFrames), expected.map(withFrames));
});

test('firefox', {timeout: 600000}, async () => {
    const reader = modules('@firefox-devtools/profiler-cli');
    const sessions = fs.mkdtempSync(path.join(os.tmpdir(), 'firefox-'));
    const env = {...process.env, PROFILER_CLI_SESSION_DIR: sessions,
        PROFILER_CLI_NO_SYMBOLICATE: '1'};
    const ask = (...words) => spawnSync(process.execPath,
        [reader, ...words, '--session', 'test', '--json'], {encoding: 'utf8', env});
    // Its own way of starting this gives up after half a second, which a busy machine may need.
    const server = spawn(process.execPath, [reader, '--daemon', convert('awkward.firefox.json'),
        '--session', 'test'], {env, stdio: 'ignore'});
    const ended = once(server, 'exit');
    const until = async (isThere) => {
        while (!isThere()) {
            assert.equal(server.exitCode ?? server.signalCode, null, 'the reader has ended');
            await new Promise((resolve) => { setTimeout(resolve, 100); });
        }
    };
    try {
        // Who asks before the session is written down takes its socket for one left behind and
        // removes it, and nobody reaches the server again. This is the last that it writes.
        await until(() => fs.existsSync(path.join(sessions, 'current.txt')));
        await until(() => ask('thread', 'select', 't-0').status === 0);
        for (const [index, {label, stacks}] of report.threads.entries()) {
            assert.equal(ask('thread', 'select', `t-${index}`).status, 0);
            const found = JSON.parse(ask('thread', 'functions').stdout);
            assert.ok(found.friendlyThreadName.includes(label.split('\n')[0]));
            const own = [...stacks].filter(([key]) => key)
                .map(([key, weight]) => [key.split('\n').at(-1), weight]);
            assert.deepEqual(sorted(found.functions.filter((each) => each.selfSamples > 0)
                .map((each) => [each.name, each.selfSamples])), sum(own));
        }
    } finally {
        server.kill('SIGKILL');
        await ended;
        fs.rmSync(sessions, {recursive: true});
    }
});
