// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// A profile as text with the weights that every reader of it must find: names that a format could
// take for its own, recursion, a thread with samples without frames, and many nodes.

const guid = '{B5883EE7-D27B-21B7-F8A9-228ED6808B85};';
const names = ['main', 'a;b\\c', '</script><b>"&', 'zwei\nZeilen', ''];
const deepest = 12;

const frameText = (module, offset) => `${module}.so+0x${offset.toString(16).toUpperCase()}`;

/** Each thread's `stacks` has own samples by frames, outermost first, one a line. */
export function awkwardProfile(nodesWanted) {
    let state = 12345;
    const random = (limit) => {
        state = (state * 1103515245 + 12345) % 2147483648;
        return Math.floor(state / 65536) % limit;
    };
    const threads = names.map((name, index) =>
        ({name, label: name || `thread ${100 + index}`, id: 100 + index, samples: 0,
            stacks: new Map(), lines: []}));
    let nodeCount = 0;
    const addNode = (thread, path) => {
        ++nodeCount;
        const place = thread.lines.push('') - 1;
        const children = path.length === deepest ? 0 : random(4);
        const own = children === 0 ? 1 + random(9) : random(2);
        let count = own;
        for (let child = 0; child < children; ++child) {
            // Few functions, so that some of them call themselves.
            count += addNode(thread, [...path, frameText(`lib ${random(3)}`, 16 + random(60))]);
        }
        thread.lines[place] = `${' '.repeat(path.length + 1)}[${count}]: ${path.at(-1)}${guid}`;
        if (own > 0) {
            const key = path.join('\n');
            thread.stacks.set(key, (thread.stacks.get(key) ?? 0) + own);
        }
        return count;
    };
    threads.forEach((thread, index) => {
        const wanted = nodesWanted * (index + 1) / threads.length;
        for (let root = 0; nodeCount < wanted || root === 0; ++root) {
            thread.samples += addNode(thread, [frameText(`root ${index}`, 4096 + root)]);
        }
    });
    threads[1].samples += 7;
    threads[1].stacks.set('', 7);
    const samples = threads.reduce((sum, thread) => sum + thread.samples, 0);
    const text = `Total sample count: ${samples}\nIteration count: ${samples}\nParallelism: 1\n\n` +
        threads.map((thread) => `Thread ${thread.id} [${thread.samples}]: ${thread.name}\n` +
            `${thread.lines.join('\n')}\n\n`).join('');
    return {text, threads, samples};
}
