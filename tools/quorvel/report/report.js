"use strict";
(() => {

// ---- The data -----------------------------------------------------------------------------------

// A thing is an effect or, after the effects, another stream. A run is a group of adjacent pages
// with one use and one owner, which is a thing or a tail block.
const data = JSON.parse(document.getElementById("data").textContent);
const facts = data.facts;
const isCache = facts.kind === "effect cache";
const effectCount = data.names.length;
const thingCount = data.sizes.length;
const what = isCache ? "effect" : "stream";
const KINDS = [
    {key: "head", label: "Head file", text: "the package's own records"},
    {key: "index", label: "Index", text: "names, sizes and times"},
    {key: "effects", label: isCache ? "Effects" : "Streams", text: `pages of one ${what}`},
    {key: "tails", label: "Tail blocks", text: `ends of ${what}s, packed`},
    {key: "free", label: "Free", text: `for the next ${what}s`},
    {key: "unowned", label: "Unowned", text: "in use, part of nothing"},
    {key: "dead", label: "Dead", text: "past the last known page"},
];
const EFFECTS = 2;
const TAILS = 3;

// The runs, and the pages of each use and of each thing.
const runs = {kind: [], owner: [], first: []};
const runsOfOwner = new Map();
const pagesOfKind = KINDS.map(() => 0);
const pagesOfThing = new Uint32Array(thingCount);
let pageCount = 0;
const ownerKey = (kind, owner) => `${kind} ${owner}`;
for (let i = 0; i < data.runs.length; i += 3) {
    const [kind, owner, count] = [data.runs[i], data.runs[i + 1], data.runs[i + 2]];
    const key = ownerKey(kind, owner);
    if (!runsOfOwner.has(key)) { runsOfOwner.set(key, []); }
    runsOfOwner.get(key).push(runs.kind.length);
    runs.kind.push(kind);
    runs.owner.push(owner);
    runs.first.push(pageCount);
    pagesOfKind[kind] += count;
    if (kind === EFFECTS || kind === 1) { pagesOfThing[owner] += count; }
    pageCount += count;
}
runs.first.push(pageCount);

const thingsInBlock = data.blocks.map(() => []);
data.tails.forEach((block, thing) => { if (block) { thingsInBlock[block - 1].push(thing); } });

function runAt(page) {
    let low = 0;
    let high = runs.kind.length;
    while (high - low > 1) {
        const middle = (low + high) >> 1;
        if (runs.first[middle] <= page) { low = middle; } else { high = middle; }
    }
    return low;
}

function nameOf(thing) {
    if (thing < effectCount) { return data.names[thing]; }
    if (thing === data.index) { return "the index"; }
    return `stream ${data.streams[thing - effectCount]}`;
}

// ---- Words and elements -------------------------------------------------------------------------

const number = (value) => value.toLocaleString("en");
const count = (value, word) => `${number(value)} ${word}${value === 1 ? "" : "s"}`;
const percent = (part, whole) => `${(whole ? 100 * part / whole : 0).toFixed(1)} %`;
const shortTime = (time) => time.slice(0, -4).replace("T", " ");

function size(bytes) {
    if (bytes < 1024) { return count(bytes, "byte"); }
    let value = bytes / 1024;
    let unit = 0;
    for (; value >= 1023.95 && unit < 3; ++unit) { value /= 1024; }
    return `${value.toFixed(1)} ${["KiB", "MiB", "GiB", "TiB"][unit]}`;
}

const byId = (id) => document.getElementById(id);

// Makes an element. Texts become text nodes, so names are never read as HTML.
function make(tag, className, ...children) {
    const element = document.createElement(tag);
    if (className) { element.className = className; }
    element.append(...children);
    return element;
}

// ---- Figures and charts -------------------------------------------------------------------------

function showHeader() {
    const cut = Math.max(facts.path.lastIndexOf("/"), facts.path.lastIndexOf("\\")) + 1;
    byId("kind").textContent = facts.kind;
    byId("path").append(make("span", "", facts.path.slice(0, cut)), make("wbr"), facts.path.slice(cut));
    byId("when").textContent = `as of ${shortTime(facts.time)}`;
    byId("footer").textContent = `quorvel ${facts.version}`;
    document.title = `${facts.path.slice(cut)} \u2013 Quorvel report`;
    if (!facts.damage) { return; }
    byId("damage").hidden = false;
    byId("damage").textContent =
        `Damaged: ${facts.damage}. The effects can't be read, so this report shows streams.`;
}

function showFigure(label, value, detail, share) {
    const figure = make("div", "figure", make("span", "", label), make("b", "", value),
                        make("span", "", detail));
    if (share !== undefined) {
        const bar = make("i");
        bar.style.width = `${Math.min(100, 100 * share)}%`;
        bar.hidden = !share;
        figure.append(make("div", "meter", bar));
    }
    byId("figures").append(figure);
}

function showFigures() {
    const {effects, streams, pages, tailBlocks} = facts;
    if (isCache) {
        showFigure("Effects", number(effects.count),
                   `${percent(effects.count, facts.effectLimit)} of ${number(facts.effectLimit)}`,
                   effects.count / facts.effectLimit);
        showFigure("Bytes of effects", size(effects.bytes),
                   `${percent(streams.bytes, facts.byteLimit)} of ${size(facts.byteLimit)}`,
                   streams.bytes / facts.byteLimit);
        showFigure("Permanent", number(effects.permanent),
                   `${size(effects.permanentBytes)} that are never evicted`,
                   effects.count ? effects.permanent / effects.count : 0);
    } else {
        showFigure("Streams", number(streams.count), size(streams.bytes));
    }
    const unused = pages.free + pages.unowned + pages.dead;
    showFigure("File", size(facts.fileSize), count(pages.file, "page"));
    showFigure("Unused pages", number(unused), `${percent(unused, pages.file)} of the file`,
               pages.file ? unused / pages.file : 0);
    showFigure("Tail blocks", number(tailBlocks.count),
               `${percent(tailBlocks.usedBytes, tailBlocks.bytes)} full`,
               tailBlocks.bytes ? tailBlocks.usedBytes / tailBlocks.bytes : 0);
}

function showChart(title, groups) {
    const most = Math.max(1, ...Object.values(groups));
    const table = make("table", "chart");
    for (const [label, value] of Object.entries(groups)) {
        const bar = make("i");
        bar.style.width = `${80 * value / most}%`;
        bar.style.minWidth = value ? "2px" : "0";
        table.append(make("tr", "", make("th", "", label),
                          make("td", "", make("div", "effects", bar, make("b", "", number(value))))));
    }
    byId("charts").append(make("div", "", make("h2", "", title), table));
}

function showCharts() {
    byId("charts").hidden = !isCache;
    if (!isCache) { return; }
    showChart("Sizes of effects", facts.effects.sizes);
    showChart("Last used", facts.effects.lastUsed);
}

// ---- The picture --------------------------------------------------------------------------------

const picture = byId("picture");
const [base, overlay] = picture.querySelectorAll("canvas");
const grid = {cell: 0, gap: 0, columns: 1, rows: 1, scale: 1};
let colors = [];
let shownKind = null;  // the only use that is shown in full colour, or null
let selected = null;   // the run that was clicked, or the first one of the effect that was chosen
let chosen = -1;       // the thing that was chosen

function layOut() {
    const width = picture.clientWidth;
    const height = width < 600 ? 900 : 780;
    for (grid.cell of [32, 26, 20, 16, 14, 12, 10, 8, 7, 6, 5, 4, 3, 2]) {
        grid.columns = Math.max(1, Math.floor(width / grid.cell));
        grid.rows = Math.max(1, Math.ceil(pageCount / grid.columns));
        if (grid.rows * grid.cell <= height) { break; }
    }
    const drawnHeight = grid.rows * grid.cell;
    grid.gap = grid.cell > 6 ? 1 : 0;
    // 16000 pixels is about as high as a canvas can be.
    grid.scale = Math.min(window.devicePixelRatio || 1, 16000 / drawnHeight);
    for (const canvas of [base, overlay]) {
        canvas.width = Math.round(grid.columns * grid.cell * grid.scale);
        canvas.height = Math.round(drawnHeight * grid.scale);
        canvas.style.width = `${grid.columns * grid.cell}px`;
        canvas.style.height = `${drawnHeight}px`;
    }
}

function context(canvas) {
    const result = canvas.getContext("2d");
    result.setTransform(grid.scale, 0, 0, grid.scale, 0, 0);
    return result;
}

// Calls paint(x, y, pages) for each row of the picture that a run crosses.
function forRows(run, paint) {
    let page = runs.first[run];
    while (page < runs.first[run + 1]) {
        const column = page % grid.columns;
        const pages = Math.min(runs.first[run + 1] - page, grid.columns - column);
        paint(column * grid.cell, Math.floor(page / grid.columns) * grid.cell, pages);
        page += pages;
    }
}

function paintRun(target, run) {
    const side = grid.cell - grid.gap;
    forRows(run, (x, y, pages) => {
        if (!grid.gap) {
            target.fillRect(x, y, pages * grid.cell, grid.cell);
            return;
        }
        for (let i = 0; i < pages; ++i) { target.fillRect(x + i * grid.cell, y, side, side); }
    });
}

// The runs that have the same owner as a run; and those of what was chosen, which for a thing are
// its pages and its tail's block.
function runsOf(run) {
    return runsOfOwner.get(ownerKey(runs.kind[run], runs.owner[run]));
}
function chosenRuns() {
    if (chosen < 0) { return selected === null ? null : new Set(runsOf(selected)); }
    const keys = [ownerKey(EFFECTS, chosen), ownerKey(1, chosen),
                  ownerKey(TAILS, data.tails[chosen] - 1)];
    return new Set(keys.flatMap((key) => runsOfOwner.get(key) || []));
}

function draw() {
    const target = context(base);
    const strong = chosenRuns();
    target.clearRect(0, 0, base.width, base.height);
    for (let run = 0; run < runs.kind.length; ++run) {
        const kind = runs.kind[run];
        const isWeak = strong ? !strong.has(run) : shownKind !== null && shownKind !== kind;
        // Neighbours of one use differ a little, to show where the next owner begins.
        target.globalAlpha = isWeak ? 0.15 : runs.owner[run] % 2 ? 0.87 : 1;
        target.fillStyle = colors[kind];
        paintRun(target, run);
    }
}

function outline(list) {
    const target = context(overlay);
    target.clearRect(0, 0, overlay.width, overlay.height);
    const {color, backgroundColor} = getComputedStyle(document.body);
    for (const [style, width] of [[backgroundColor, 4], [color, 2]]) {
        target.strokeStyle = style;
        target.lineWidth = width;
        for (const run of list) {
            forRows(run, (x, y, pages) => {
                target.strokeRect(x, y, pages * grid.cell - grid.gap, grid.cell - grid.gap);
            });
        }
    }
}

function readColors() {
    colors = [...byId("legend").querySelectorAll(".swatch")].map((e) => getComputedStyle(e).color);
}

function showLegend() {
    KINDS.forEach((kind, i) => {
        const button = make("button", "",
            make("span", "", make("i", `swatch ${kind.key}`), make("b", "", kind.label)),
            make("span", "note", `${number(pagesOfKind[i])} (${percent(pagesOfKind[i], pageCount)})`));
        button.title = kind.text;
        button.dataset.kind = kind.key;
        button.dataset.pages = pagesOfKind[i];
        button.setAttribute("aria-pressed", "false");
        button.addEventListener("click", () => {
            select(null, -1);
            shownKind = shownKind === i ? null : i;
            byId("legend").querySelectorAll("button").forEach((other, k) => {
                other.setAttribute("aria-pressed", String(shownKind === k));
            });
            draw();
        });
        byId("legend").append(make("li", "", button));
    });
}

// ---- What owns a page ---------------------------------------------------------------------------

function thingLines(thing) {
    const lines = [`${size(data.sizes[thing])}, ${count(pagesOfThing[thing], "whole page")}` +
                   (data.tails[thing] ? ", and its end in a tail block" : "")];
    if (thing < effectCount) {
        lines.push(`last used ${shortTime(data.times[thing])}, ` +
                   (data.permanent[thing] ? "permanent" : "evictable"));
    } else if (isCache && thing !== data.index) {
        lines.push("belongs to no effect");
    }
    return lines;
}

function describeThing(thing, lines) {
    const owner = thing < effectCount ? "Effect" : thing === data.index ? "Index" : "Stream";
    return {title: owner, names: [nameOf(thing)], more: 0, lines: [...thingLines(thing), ...lines]};
}

// What owns a run of pages, with at most that many names.
function describeRun(run, page, limit) {
    const kind = runs.kind[run];
    const owner = runs.owner[run];
    const lines = [`page ${number(page + 1)} of ${number(pageCount)}, ` +
                   `byte ${number(page * facts.pageSize)} of the file`];
    if (kind === EFFECTS || kind === 1) { return describeThing(owner, lines); }
    const result = {title: KINDS[kind].label, names: [], more: 0, lines};
    if (kind !== TAILS) {
        lines.unshift(KINDS[kind].text);
        return result;
    }
    const block = data.blocks[owner];
    const things = thingsInBlock[owner];
    result.title = "Tail block";
    lines.unshift(`${percent(block, facts.blockSize)} full, with the ends of ` +
                  count(things.length, what));
    result.names = things.slice(0, limit).map(nameOf);
    result.more = things.length - result.names.length;
    return result;
}

function showOwner(element, {title, names, more, lines}) {
    const list = make("ul", "", ...names.map((name) => make("li", "", make("bdi", "", name))));
    if (more) { list.append(make("li", "note", `and ${number(more)} more`)); }
    element.replaceChildren(make("div", "title", title), list,
                            ...lines.map((line) => make("div", "note", line)));
}

// ---- Pointing and choosing ----------------------------------------------------------------------

const tip = byId("tip");

function pageAt(event) {
    const box = base.getBoundingClientRect();
    const column = Math.floor((event.clientX - box.left) / grid.cell);
    const page = Math.floor((event.clientY - box.top) / grid.cell) * grid.columns + column;
    return column >= 0 && column < grid.columns && page >= 0 && page < pageCount ? page : -1;
}

function point(event) {
    const page = pageAt(event);
    tip.hidden = page < 0;
    if (page < 0) {
        outline([]);
        return;
    }
    const run = runAt(page);
    outline(runsOf(run));
    showOwner(tip, describeRun(run, page, 6));
    const x = Math.min(event.clientX + 16, window.innerWidth - tip.offsetWidth - 8);
    const below = event.clientY + 18;
    const y = below + tip.offsetHeight < window.innerHeight ? below
                                                            : event.clientY - tip.offsetHeight - 12;
    tip.style.transform = `translate(${Math.max(8, x)}px, ${Math.max(8, y)}px)`;
}

// Keeps a run, or a thing, or neither (null, -1), in the picture and in the table.
function select(run, thing, page) {
    selected = run;
    chosen = thing;
    const element = byId("selected");
    element.hidden = run === null && thing < 0;
    if (thing >= 0) {
        showOwner(element.firstChild, describeThing(thing, []));
    } else if (run !== null) {
        showOwner(element.firstChild, describeRun(run, page, 40));
    }
    draw();
    table.renderRows();
}

function selectPage(page) {
    const run = runAt(page);
    const isThing = runs.kind[run] === EFFECTS || runs.kind[run] === 1;
    select(run, isThing ? runs.owner[run] : -1, page);
    if (chosen >= 0) { table.reveal(chosen); }
}

function listenToPicture() {
    picture.addEventListener("pointermove", (event) => {
        if (event.pointerType === "mouse") { point(event); }
    });
    picture.addEventListener("pointerleave", () => {
        tip.hidden = true;
        outline([]);
    });
    picture.addEventListener("click", (event) => {
        const page = pageAt(event);
        if (page >= 0) { selectPage(page); } else { select(null, -1); }
    });
    picture.addEventListener("keydown", (event) => {
        const step = {ArrowLeft: -1, ArrowRight: 1}[event.key];
        if (!step || !pageCount) { return; }
        const last = runs.kind.length - 1;
        const run = selected === null ? 0 : Math.max(0, Math.min(last, selected + step));
        selectPage(runs.first[run]);
        event.preventDefault();
    });
    byId("selected").lastChild.addEventListener("click", () => select(null, -1));
    document.addEventListener("keydown", (event) => {
        if (event.key === "Escape") { select(null, -1); }
    });
}

// ---- The table ----------------------------------------------------------------------------------

const byText = (left, right) => (left < right ? -1 : left > right ? 1 : 0);
const COLUMNS = [
    {key: "name", label: "Name", order: (a, b) => byText(nameOf(a), nameOf(b))},
    {key: "size", label: "Size", className: "number", falls: true,
     text: (thing) => size(data.sizes[thing]), order: (a, b) => data.sizes[a] - data.sizes[b]},
    {key: "time", label: "Last used", className: "wide", falls: true, ofEffects: true,
     text: (thing) => shortTime(data.times[thing]),
     order: (a, b) => byText(data.times[a], data.times[b])},
    {key: "kept", label: "Kept", className: "wide", falls: true, ofEffects: true,
     text: (thing) => (data.permanent[thing] ? "permanent" : "evictable"),
     order: (a, b) => data.permanent[a] - data.permanent[b]},
    {key: "pages", label: "Pages", className: "wide number", falls: true,
     text: (thing) => number(pagesOfThing[thing]),
     order: (a, b) => pagesOfThing[a] - pagesOfThing[b]},
].filter((column) => isCache || !column.ofEffects);

// A second line under the name, for narrow windows that have no room for these columns.
function brief(thing) {
    if (!isCache) { return count(pagesOfThing[thing], "page"); }
    return `${shortTime(data.times[thing]).slice(0, -3)}` +
        (data.permanent[thing] ? ", permanent" : "");
}

// Only the visible rows exist.
const table = (() => {
    const box = byId("table");
    const header = box.querySelector(".header");
    const body = box.querySelector(".body");
    const all = new Uint32Array(isCache ? effectCount : thingCount).map((_, i) => i);
    let sorted = all;
    let shown = all;
    let lowerNames = null;
    let column = COLUMNS[1];
    let isFalling = true;
    let pool = [];
    let rowHeight = 34;

    function makeRow() {
        const name = make("div", "name", make("bdi"), make("div", "brief"));
        const cells = COLUMNS.slice(1).map((c) => make("div", c.className));
        const row = make("div", "row", name, ...cells);
        row.setAttribute("role", "row");
        for (const cell of row.children) { cell.setAttribute("role", "cell"); }
        row.addEventListener("click", () => {
            select(null, chosen === row.thing ? -1 : row.thing);
            if (chosen >= 0) { picture.scrollIntoView({block: "nearest", behavior: "smooth"}); }
        });
        return row;
    }

    function fillRow(row, place) {
        const thing = shown[place];
        row.thing = thing;
        row.classList.toggle("chosen", thing === chosen);
        row.setAttribute("aria-rowindex", String(place + 2));
        row.style.transform = `translateY(${place * rowHeight}px)`;
        row.firstChild.firstChild.textContent = nameOf(thing);
        row.firstChild.title = nameOf(thing).slice(0, 1000);
        row.firstChild.lastChild.textContent = brief(thing);
        COLUMNS.slice(1).forEach((c, i) => { row.children[i + 1].textContent = c.text(thing); });
    }

    function renderRows() {
        const first = Math.max(0, Math.floor(box.scrollTop / rowHeight) - 4);
        const end = Math.min(shown.length, first + Math.ceil(box.clientHeight / rowHeight) + 9);
        while (pool.length < end - first) {
            pool.push(makeRow());
            body.append(pool[pool.length - 1]);
        }
        pool.forEach((row, i) => {
            row.hidden = first + i >= end;
            if (!row.hidden) { fillRow(row, first + i); }
        });
    }

    function resize() {
        rowHeight = parseFloat(getComputedStyle(box).getPropertyValue("--row"));
        body.style.height = `${Math.max(shown.length, 1) * rowHeight}px`;
        renderRows();
    }

    function filter() {
        const text = byId("filter").value.toLowerCase();
        const kept = byId("kept").value;
        if (text && !lowerNames) {
            lowerNames = Array.from(all, (thing) => nameOf(thing).toLowerCase());
        }
        shown = text || kept ? sorted.filter((thing) => (!text || lowerNames[thing].includes(text)) &&
                                                         (!kept || data.permanent[thing] === Number(kept)))
                             : sorted;
        let bytes = 0;
        for (const thing of shown) { bytes += data.sizes[thing]; }
        byId("found").textContent = shown.length < all.length
            ? `${number(shown.length)} of ${count(all.length, what)}, ${size(bytes)}`
            : `${count(all.length, what)}, ${size(bytes)}`;
        box.setAttribute("aria-rowcount", String(shown.length + 1));
        body.querySelector(".nothing")?.remove();
        if (!shown.length) { body.append(make("div", "nothing", `No ${what} matches.`)); }
        box.scrollTop = 0;
        resize();
    }

    function sort() {
        const sign = isFalling ? -1 : 1;
        sorted = all.slice().sort((a, b) => sign * column.order(a, b) || a - b);
        header.querySelectorAll("[role]").forEach((cell, i) => {
            if (COLUMNS[i] === column) {
                cell.setAttribute("aria-sort", isFalling ? "descending" : "ascending");
            } else {
                cell.removeAttribute("aria-sort");
            }
        });
        filter();
    }

    function sortBy(next) {
        isFalling = next === column ? !isFalling : Boolean(next.falls);
        column = next;
        sort();
    }

    // Scrolls to a thing, if the filter shows it.
    function reveal(thing) {
        const place = shown.indexOf(thing);
        if (place < 0) { return; }
        box.scrollTop = Math.max(0, (place + 1) * rowHeight - box.clientHeight / 2);
        renderRows();
    }

    function start() {
        byId("list").textContent = isCache ? "Effects" : "Streams";
        byId("kept").hidden = !isCache;
        document.body.classList.toggle("package", !isCache);
        for (const c of COLUMNS) {
            const button = make("button", "", c.label);
            button.dataset.column = c.key;
            button.addEventListener("click", () => sortBy(c));
            const cell = make("div", c.className || "name", button);
            cell.setAttribute("role", "columnheader");
            header.append(cell);
        }
        let isWaiting = false;
        box.addEventListener("scroll", () => {
            if (isWaiting) { return; }
            isWaiting = true;
            requestAnimationFrame(() => { isWaiting = false; renderRows(); });
        });
        byId("filter").addEventListener("input", filter);
        byId("kept").addEventListener("change", filter);
        sort();
    }

    return {start, resize, renderRows, reveal};
})();

// ---- Start --------------------------------------------------------------------------------------

function redraw() {
    readColors();
    layOut();
    draw();
    outline([]);
}

showHeader();
showFigures();
showLegend();
showCharts();
table.start();
redraw();
listenToPicture();
picture.setAttribute("aria-label", `The ${number(pageCount)} pages of the file`);
window.addEventListener("resize", () => { redraw(); table.resize(); });
window.matchMedia("(prefers-color-scheme: dark)").addEventListener("change", redraw);

})();
