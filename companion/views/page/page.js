// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// The page around the pictures: choices, search, words and tables.

const data = JSON.parse(document.getElementById('data').textContent);
const byId = (id) => document.getElementById(id);
const isDifference = Boolean(data.before);
const functions = data.functions.map(([name, file, module, source]) => ({
    name: data.names[name], file: data.files[file], module: data.modules[module], module_id: module,
    source, short: null,
}));
const threads = data.threads.map((thread) => ({...thread, tree: new Tree(thread)}));
const rowsAtOnce = 200;

const state = {
    view: '', thread: -1, tree: null, weights: null, found: null, scheme: 'light',
    sort: 'self', rows: rowsAtOnce, pivot: -1, pointed: null,
};

// Words

const wholeNumber = new Intl.NumberFormat('en', {maximumFractionDigits: 0});
const samplesText = (count) =>
    `${wholeNumber.format(count)} ${Math.round(count) === 1 ? 'sample' : 'samples'}`;

function percent(part, whole) {
    const share = whole > 0 ? 100 * part / whole : 0;
    return `${share.toFixed(share < 0.1 && share > 0 ? 2 : 1)} %`;
}

const threadLabel = () => {
    const thread = threads[state.thread];
    return thread ? threadName(thread) : 'All threads';
};
const threadName = (thread) => thread.name || `thread ${thread.id}`;
const functionName = (func) => (func < 0 ? threadLabel() : functions[func].name);

function placeText(func, line) {
    if (func < 0) {
        return '';
    }
    const {file, module, source} = functions[func];
    const place = file ? `${file}${line ? `:${line}` : ''}` : '';
    const words = [place, module].filter(Boolean).join(' in ');
    return source === 'dynamic' ? `${words} (by exported symbols only)` : words;
}

/** Without arguments and template arguments, which a narrow box has no room for. */
function shortName(func) {
    const entry = functions[func];
    if (entry.short === null) {
        // Brackets that are none: those of an operator, and of a namespace without a name.
        const kept = [];
        const keep = (text) => `\u0001${String.fromCharCode(0xE000 + kept.push(text) - 1)}`;
        const name = entry.name.replace(/ \[[^\]]*\]$/, '')
            .replace(/\(anonymous namespace\)/g, keep)
            .replace(/\boperator(\(\)|<=>|<<=?|>>=?|->\*?|<=|>=|<|>| [\w:]+)/g, keep);
        let depth = 0;
        let text = '';
        for (const letter of name) {
            const opens = letter === '(' || letter === '<';
            const closes = letter === ')' || letter === '>';
            text += depth === 0 && !opens && !closes ? letter : '';
            depth = Math.max(depth + (opens ? 1 : 0) - (closes ? 1 : 0), 0);
        }
        // A return type stands before the last space.
        text = text.replace(/( const| noexcept| ?&+)+$/, '').trim().split(' ').at(-1);
        text = text.replace(/\u0001(.)/g, (_, sign) => kept[sign.charCodeAt(0) - 0xE000]);
        entry.short = text || entry.name;
    }
    return entry.short;
}

function boxLabel(func, room) {
    let text = functionName(func);
    if (text.length > room && func >= 0) {
        text = shortName(func);
    }
    if (text.length > room) {
        text = text.replace(/^.*::(?=[^:])/, '');
    }
    return text.length <= room ? text : `${text.slice(0, room - 1)}…`;
}

/** In tables the whole name is for those who point at it, where it is long. */
function nameCell(func) {
    const whole = functionName(func);
    const isLong = func >= 0 && whole.length > 60;
    const cell = element('td', 'function', isLong ? shortName(func) : whole);
    cell.title = whole;
    return cell;
}

function placeCell(func, line) {
    const whole = placeText(func, line);
    const cell = element('td', 'place', whole.replace(/^\S*\//, ''));
    cell.title = whole;
    return cell;
}

/** What changed, in points of a hundred, and twice its standard error. */
function changeOf(before, after) {
    const sides = [[before, data.before.samples], [after, data.after.samples]];
    const whole = state.whole;
    let variance = 0;
    for (const [weight, count] of sides) {
        const share = Math.min((weight / Math.max(whole, 1) * count + 1) / (count + 2), 1);
        variance += share * (1 - share) / (count + 2);
    }
    const points = 100 * (after - before) / Math.max(whole, 1);
    const margin = 200 * Math.sqrt(variance);
    return {points, margin, isNoise: Math.abs(points) <= margin};
}

function changeText({points, margin}) {
    const sign = points < 0 ? '−' : '+';
    return `${sign}${Math.abs(points).toFixed(1)} ± ${margin.toFixed(1)}`;
}

const changeClass = ({points, isNoise}) => (isNoise ? 'noise' : (points > 0 ? 'gain' : 'loss'));

function element(name, className, text) {
    const made = document.createElement(name);
    made.className = className ?? '';
    made.textContent = text ?? '';
    return made;
}

function describe(tree, node) {
    const words = byId('words');
    const func = tree.func[node];
    const whole = state.tree.total[0];
    words.textContent = '';
    words.append(element('b', '', functionName(func)));
    const total = tree.total[node];
    let text = ` – ${samplesText(total)}`;
    if (func >= 0) {
        text += `, ${percent(total, whole)} of ${threadLabel()}`;
    }
    if (tree.parent[node] >= 0 && tree.func[tree.parent[node]] >= 0) {
        text += `, ${percent(total, tree.total[tree.parent[node]])} of ` +
            (tree === callers.tree ? 'the function it calls' : 'its caller');
    }
    const own = tree.children(node).reduce((left, child) => left - tree.total[child], total);
    if (tree === state.tree) {
        text += own > 1e-6
            ? `; own ${samplesText(own)} (${percent(own, whole)})` : '; none of its own';
    }
    words.append(text);
    if (isDifference && (func >= 0 || state.thread >= 0)) {
        const change = changeOf(tree.before[node], tree.after[node]);
        words.append('. Before ', percent(tree.before[node], state.whole), ', after ',
            percent(tree.after[node], state.whole), ': ',
            element('span', changeClass(change), `${changeText(change)} points`),
            change.isNoise ? ', within the noise' : '');
    }
    words.append(' ', element('span', 'place', placeText(func, tree.line[node])));
    state.pointed = func;
    byId('pivot').hidden = func < 0;
}

// Colours

const hues = [24, 208, 146, 276, 340, 54, 182, 96];
let moduleHues = [];

function chooseHues() {
    const weight = data.modules.map(() => 0);
    functions.forEach((entry, func) => { weight[entry.module_id] += state.weights.total[func]; });
    // The same module keeps its colour whatever thread is shown.
    if (moduleHues.length === 0) {
        const order = weight.map((_, module) => module).sort((a, b) => weight[b] - weight[a]);
        order.forEach((module, place) => {
            moduleHues[module] = data.modules[module] ? hues[place % hues.length] : -1;
        });
    }
}

const schemes = {
    light: {text: '#15181c', narrow: '#b9bfc7', outline: '#15181c', found: '#c2187e',
        foundText: '#ffffff', saturation: 78, lightness: 74},
    dark: {text: '#eef1f5', narrow: '#4a525c', outline: '#ffffff', found: '#ff7cc4',
        foundText: '#1a0612', saturation: 40, lightness: 33},
};
const pictureFont = '12px ui-monospace, "DejaVu Sans Mono", monospace';
const boxColors = new Map();

function moduleColor(module, shade) {
    const {saturation, lightness} = schemes[state.scheme];
    const hue = moduleHues[module] ?? -1;
    return `hsl(${Math.max(hue, 0)} ${hue < 0 ? 4 : saturation}% ${lightness + shade}%)`;
}

function differenceColor(tree, node) {
    const change = changeOf(tree.before[node], tree.after[node]);
    const strength = change.isNoise ? 0
        : Math.min(Math.sqrt(Math.abs(change.points) / state.largestChange), 1);
    const isDark = state.scheme === 'dark';
    const hue = change.points > 0 ? 26 : 208;
    return strength === 0 ? (isDark ? '#3a4048' : '#dfe2e6')
        : `hsl(${hue} ${40 + 50 * strength}% ${isDark ? 26 + 12 * strength : 88 - 24 * strength}%)`;
}

const look = {
    scheme: () => ({...schemes[state.scheme], font: pictureFont}),
    label: boxLabel,
    isSearching: () => state.found !== null,
    isFound: (func) => func >= 0 && state.found !== null && state.found[func] === 1,
    color(node, tree) {
        const func = tree.func[node];
        if (func < 0) {
            return state.scheme === 'dark' ? '#39404a' : '#d9dde2';
        }
        if (isDifference) {
            return differenceColor(tree, node);
        }
        let color = boxColors.get(func);
        if (!color) {
            color = moduleColor(functions[func].module_id, (func * 7) % 9 - 4);
            boxColors.set(func, color);
        }
        return color;
    },
};

function drawLegend() {
    const legend = byId('legend');
    legend.textContent = '';
    const add = (color, words) => {
        const sign = element('i');
        sign.style.background = color;
        const entry = element('span');
        entry.append(sign, words);
        legend.append(entry);
    };
    if (isDifference) {
        const isDark = state.scheme === 'dark';
        add(`hsl(26 90% ${isDark ? 38 : 64}%)`, 'more after');
        add(`hsl(208 90% ${isDark ? 38 : 64}%)`, 'less after');
        add(isDark ? '#3a4048' : '#dfe2e6', 'within the noise');
        return;
    }
    const own = new Map();
    functions.forEach(({module_id}, func) => {
        own.set(module_id, (own.get(module_id) ?? 0) + state.weights.self[func]);
    });
    const shown = [...own].filter(([, weight]) => weight > 0)
        .sort((a, b) => b[1] - a[1]).slice(0, 4);
    for (const [module, weight] of shown) {
        add(moduleColor(module, 0),
            `${data.modules[module] || '(unknown)'} ${percent(weight, state.tree.total[0])} own`);
    }
}

// Pictures

const on = {
    select: (node, picture) => describe(picture.tree, node),
    hover: (node, picture) => describe(picture.tree, node),
    zoom: (node) => { byId('reset').hidden = node === 0; },
};
const graph = new Picture(document.querySelector('#graph .scroller'),
    {rootAtBottom: true, look, on});
const sideOn = {select: on.select, hover: on.hover};
const callers = new Picture(byId('callers'),
    {rootAtBottom: true, skipRoot: true, look, on: sideOn});
const callees = new Picture(byId('callees'),
    {rootAtBottom: false, skipRoot: true, look, on: sideOn});

function redraw() {
    for (const picture of [graph, callers, callees]) {
        picture.layout();
    }
}

// Tables

function shareCell(weight, whole) {
    const cell = element('td', 'number share', percent(weight, whole));
    cell.style.setProperty('--share', `${whole > 0 ? 100 * weight / whole : 0}%`);
    cell.title = samplesText(weight);
    return cell;
}

function changeCell(before, after) {
    const cell = element('td', 'number change');
    if (isDifference) {
        const change = changeOf(before, after);
        cell.classList.add(changeClass(change));
        cell.textContent = changeText(change);
    }
    return cell;
}

function callRow(node, isOpen) {
    const {tree} = state;
    const func = tree.func[node];
    const row = element('tr', look.isFound(func) ? 'found' : '');
    const own = tree.children(node).reduce((left, child) => left - tree.total[child],
        tree.total[node]);
    const hasChildren = tree.end[node] > node + 1;
    row.dataset.node = node;
    row.tabIndex = -1;
    row.setAttribute('role', 'row');
    row.setAttribute('aria-level', tree.depth[node] + 1);
    const name = nameCell(func);
    name.style.paddingLeft = `${8 + Math.min(tree.depth[node], 40) * 14}px`;
    if (hasChildren) {
        row.setAttribute('aria-expanded', isOpen);
    }
    const twist = element('span', 'twist', hasChildren ? (isOpen ? '▾' : '▸') : '');
    twist.setAttribute('aria-hidden', 'true');
    name.prepend(twist);
    row.append(shareCell(tree.total[node], tree.total[0]), shareCell(own, tree.total[0]),
        changeCell(tree.before?.[node], tree.after?.[node]), name,
        placeCell(func, tree.line[node]));
    for (const cell of row.children) {
        cell.setAttribute('role', 'gridcell');
    }
    return row;
}

/** Rows of the children, and of theirs as long as one child has most, so many levels deep. */
function openRow(row, levels = 40) {
    const node = Number(row.dataset.node);
    row.setAttribute('aria-expanded', 'true');
    row.querySelector('.twist').textContent = '▾';
    const children = state.tree.children(node);
    const rows = children.slice(0, rowsAtOnce).map((child) => callRow(child, false));
    row.after(...rows);
    if (children.length > rowsAtOnce) {
        rows.at(-1).after(element('tr', ''));
        rows.at(-1).nextSibling.append(element('td', ''),
            element('td', ''), element('td', 'change'),
            element('td', 'noise', `${children.length - rowsAtOnce} lighter calls are left out`));
        rows.at(-1).nextSibling.setAttribute('aria-level', state.tree.depth[node] + 2);
    }
    if (children.length > 0 && levels > 0 &&
        state.tree.total[children[0]] >= 0.5 * state.tree.total[node]) {
        openRow(rows[0], levels - 1);
    }
}

function closeRow(row) {
    const level = Number(row.getAttribute('aria-level'));
    while (row.nextElementSibling &&
        Number(row.nextElementSibling.getAttribute('aria-level')) > level) {
        row.nextElementSibling.remove();
    }
    row.setAttribute('aria-expanded', 'false');
    row.querySelector('.twist').textContent = '▸';
}

function toggleRow(row) {
    if (row.getAttribute('aria-expanded') === 'true') {
        closeRow(row);
    } else if (row.getAttribute('aria-expanded') === 'false') {
        openRow(row);
    }
}

function fillCalls() {
    const body = document.querySelector('#calls tbody');
    const first = callRow(0, false);
    body.replaceChildren(first);
    first.tabIndex = 0;
    if (state.tree.size > 1) {
        openRow(first);
    }
    describe(state.tree, 0);
}

function functionRow(func, withPlace) {
    const {weights, whole} = state;
    const row = element('tr', look.isFound(func) ? 'found' : '');
    row.dataset.func = func;
    row.tabIndex = 0;
    row.append(shareCell(weights.self[func], whole), shareCell(weights.total[func], whole));
    if (withPlace) {
        row.append(changeCell(weights.before[func], weights.after[func]));
    }
    row.append(nameCell(func));
    if (withPlace) {
        row.append(placeCell(func, 0));
    }
    return row;
}

function sortedFunctions(key) {
    const {weights} = state;
    const compare = {
        self: (a, b) => weights.self[b] - weights.self[a] || weights.total[b] - weights.total[a],
        total: (a, b) => weights.total[b] - weights.total[a],
        change: (a, b) => Math.abs(weights.after[b] - weights.before[b]) -
            Math.abs(weights.after[a] - weights.before[a]),
        name: (a, b) => functions[a].name.localeCompare(functions[b].name, 'en'),
    };
    return functions.map((_, func) => func)
        .filter((func) => weights.total[func] + weights.before[func] > 0 &&
            (state.found === null || state.found[func]))
        .sort(compare[key]);
}

function fillFunctions() {
    const sorted = sortedFunctions(state.sort);
    document.querySelector('#functions tbody').replaceChildren(
        ...sorted.slice(0, state.rows).map((func) => functionRow(func, true)));
    byId('more').hidden = sorted.length <= state.rows;
    for (const button of document.querySelectorAll('#functions th button')) {
        const {sort} = button.dataset;
        if (sort === state.sort) {
            button.parentElement.setAttribute('aria-sort',
                sort === 'name' ? 'ascending' : 'descending');
        } else {
            button.parentElement.removeAttribute('aria-sort');
        }
    }
}

function fillSandwich() {
    const sorted = sortedFunctions('total');
    const {total, before} = state.weights;
    if (state.pivot < 0 || total[state.pivot] + before[state.pivot] === 0) {
        state.pivot = sortedFunctions('self')[0] ?? -1;
    }
    document.querySelector('#chooser tbody').replaceChildren(
        ...sorted.slice(0, rowsAtOnce).map((func) => {
            const row = functionRow(func, false);
            row.setAttribute('aria-selected', func === state.pivot);
            return row;
        }));
    if (state.pivot >= 0) {
        byId('pivot-name').textContent = functionName(state.pivot);
        callers.show(withWidths(callersOf(state.tree, state.pivot, functions.length)));
        callees.show(withWidths(calleesOf(state.tree, state.pivot, functions.length)));
        describe(callees.tree, Math.min(1, callees.tree.size - 1));
    }
}

// Choices

function withWidths(tree) {
    if (isDifference && byId('widths').value === 'before') {
        tree.setWeights(ownWeights(tree).before);
    }
    return tree;
}

function fillView() {
    const isGraph = state.view === 'flame' || state.view === 'icicle';
    byId('reset').hidden = true;
    if (isGraph) {
        graph.rootAtBottom = state.view === 'flame';
        graph.show(state.tree);
        describe(state.tree, 0);
    }
    ({sandwich: fillSandwich, calls: fillCalls, functions: fillFunctions})[state.view]?.();
}

function showView(view) {
    state.view = view;
    for (const tab of document.querySelectorAll('[role=tab]')) {
        const isShown = tab.dataset.view === view;
        tab.setAttribute('aria-selected', isShown);
        tab.tabIndex = isShown ? 0 : -1;
        if (isShown) {
            tab.scrollIntoView({block: 'nearest', inline: 'nearest'});
        }
    }
    const panel = view === 'flame' || view === 'icicle' ? 'graph' : view;
    for (const section of document.querySelectorAll('main section')) {
        section.hidden = section.id !== panel;
    }
    fillView();
}

function showThread(thread) {
    state.thread = thread;
    const tree = thread >= 0 ? threads[thread].tree
        : (threads.length === 1 ? threads[0].tree
            : mergeTrees(threads.map((each) => each.tree), functions.length));
    tree.setWeights(tree.self);
    state.whole = isDifference ? data.after.samples : tree.total[0];
    state.weights = functionWeights(tree, functions.length);
    state.weights.after = state.weights.total;
    state.largestChange = 1;
    if (isDifference) {
        for (let func = 0; func < functions.length; ++func) {
            const {points} = changeOf(state.weights.before[func], state.weights.after[func]);
            state.largestChange = Math.max(state.largestChange, Math.abs(points));
        }
    }
    state.tree = withWidths(tree);
    chooseHues();
    drawLegend();
    updateFound();
    fillView();
}

function updateFound() {
    const text = byId('search').value.trim().toLowerCase();
    state.found = null;
    if (text) {
        const moduleHas = data.modules.map((module) => module.toLowerCase().includes(text));
        const fileHas = data.files.map((file) => file.toLowerCase().includes(text));
        state.found = Uint8Array.from(data.functions, ([, file, module], func) =>
            (functions[func].name.toLowerCase().includes(text) || moduleHas[module] ||
                fileHas[file] ? 1 : 0));
    }
    const output = byId('found');
    if (!state.found) {
        output.textContent = '';
        return;
    }
    let found = 0;
    state.tree.forOutermost(look.isFound, (node) => { found += state.tree.total[node]; });
    output.textContent = found > 0
        ? `found in ${percent(found, state.tree.total[0])}: ${samplesText(found)}` : 'not found';
}

function setScheme(scheme) {
    state.scheme = scheme;
    document.documentElement.dataset.scheme = scheme;
    byId('scheme').textContent = scheme === 'dark' ? 'Light' : 'Dark';
    byId('scheme').setAttribute('aria-label',
        `Switch to the ${scheme === 'dark' ? 'light' : 'dark'} scheme`);
    boxColors.clear();
    if (state.tree) {
        drawLegend();
        redraw();
    }
}

function pivotOn(func) {
    if (func >= 0) {
        state.pivot = func;
        showView('sandwich');
    }
}

// Start

byId('title').textContent = data.title;
document.title = data.title;
byId('about').textContent = data.about;
document.body.classList.toggle('difference', isDifference);
byId('width-choice').hidden = !isDifference;
if (threads.length !== 1) {
    byId('thread').append(new Option('All threads', -1));
}
threads.map((thread, index) => [thread, index])
    .sort(([a], [b]) => b.tree.total[0] - a.tree.total[0])
    .forEach(([thread, index]) => byId('thread').append(
        new Option(`${threadName(thread)} (${wholeNumber.format(thread.tree.total[0])})`, index)));

const preferred = window.matchMedia('(prefers-color-scheme: dark)');
setScheme(preferred.matches ? 'dark' : 'light');
preferred.addEventListener('change', (event) => setScheme(event.matches ? 'dark' : 'light'));
byId('scheme').addEventListener('click', () =>
    setScheme(state.scheme === 'dark' ? 'light' : 'dark'));

byId('thread').addEventListener('change', (event) => showThread(Number(event.target.value)));
byId('widths').addEventListener('change', () => showThread(state.thread));
byId('search').addEventListener('input', () => {
    updateFound();
    if (state.view === 'flame' || state.view === 'icicle') {
        graph.schedule();
    } else {
        fillView();
    }
});
byId('reset').addEventListener('click', () => graph.zoom(0));
byId('pivot').addEventListener('click', () => pivotOn(state.pointed));
byId('more').addEventListener('click', () => {
    state.rows *= 2;
    fillFunctions();
});
byId('tabs').addEventListener('click', (event) => {
    if (event.target.dataset.view) {
        showView(event.target.dataset.view);
    }
});
byId('tabs').addEventListener('keydown', (event) => {
    const step = {ArrowLeft: -1, ArrowRight: 1}[event.key];
    const tabs = [...document.querySelectorAll('[role=tab]')];
    const next = tabs[tabs.indexOf(document.activeElement) + step];
    if (next) {
        next.focus();
        showView(next.dataset.view);
    }
});
document.querySelector('#functions thead').addEventListener('click', (event) => {
    if (event.target.dataset.sort) {
        state.sort = event.target.dataset.sort;
        fillFunctions();
    }
});
for (const body of document.querySelectorAll('#functions tbody, #chooser tbody')) {
    const choose = (event) => {
        const row = event.target.closest('tr');
        if (row && (event.type === 'click' || event.key === 'Enter')) {
            pivotOn(Number(row.dataset.func));
        }
    };
    body.addEventListener('click', choose);
    body.addEventListener('keydown', choose);
}
const calls = document.querySelector('#calls tbody');
calls.addEventListener('click', (event) => {
    const row = event.target.closest('tr');
    row.focus();
    toggleRow(row);
});
calls.addEventListener('focusin', (event) => {
    const row = event.target.closest('tr');
    if (row.dataset.node) {
        calls.querySelector('[tabindex="0"]')?.setAttribute('tabindex', -1);
        row.tabIndex = 0;
        describe(state.tree, Number(row.dataset.node));
    }
});
calls.addEventListener('keydown', (event) => {
    const row = event.target.closest('tr');
    const move = {ArrowDown: row.nextElementSibling,
        ArrowUp: row.previousElementSibling}[event.key];
    const wanted = {ArrowRight: 'false', ArrowLeft: 'true'}[event.key];
    if (move) {
        move.focus();
    } else if (event.key === 'Enter' ||
        (wanted && row.getAttribute('aria-expanded') === wanted)) {
        toggleRow(row);
    } else {
        return;
    }
    event.preventDefault();
});
document.addEventListener('keydown', (event) => {
    if (event.key === '/' && document.activeElement !== byId('search')) {
        byId('search').focus();
        event.preventDefault();
    } else if (event.key === 'Escape' && document.activeElement === byId('search')) {
        byId('search').value = '';
        byId('search').dispatchEvent(new Event('input'));
    }
});

if (threads.length === 1) {
    byId('thread').value = '0';
}
// Small screens have no room for boxes with words.
state.view = window.innerWidth < 700 ? 'calls' : 'flame';
showThread(threads.length === 1 ? 0 : -1);
showView(state.view);
