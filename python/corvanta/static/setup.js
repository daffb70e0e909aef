// Set-up: the board picker, the two range editors (grid and notation kept in step through
// the server's reader and writer of range notation), the bet sizes, and the preview of
// the tree the engine builds.
"use strict";

const STREETS = ["flop", "turn", "river"];
const Setup = { board: [], editors: {}, sizes: {}, touched: false, checkTimer: null };

// -- board ------------------------------------------------------------------------

function renderBoardPicker() {
  const deck = $("board-picker");
  deck.replaceChildren();
  for (const s of SUITS) {
    for (const r of RANKS) {
      const card = r + s;
      const b = el("button", "card");
      b.type = "button";
      b.dataset.card = card;
      b.append(cardNode(card));
      b.classList.toggle("on", Setup.board.includes(card));
      b.addEventListener("click", () => toggleCard(card));
      deck.append(b);
    }
  }
  const text = $("board-text");
  text.replaceChildren(...(Setup.board.length ? Setup.board.map(cardNode) : [el("span", "muted", "pick 3 to 5 cards")]));
}

function toggleCard(card) {
  const i = Setup.board.indexOf(card);
  if (i >= 0) Setup.board.splice(i, 1);
  else if (Setup.board.length < 5) Setup.board.push(card);
  touched();
  renderBoardPicker();
  renderSizes();
}

// -- ranges ---------------------------------------------------------------------

function cellHands() {
  if (!Setup.cellHands) {
    Setup.cellHands = App.meta.cells.map(() => []);
    App.meta.hand_cell.forEach((c, h) => Setup.cellHands[c].push(h));
  }
  return Setup.cellHands;
}

function makeEditor(player) {
  const box = el("div", "panel range-editor");
  box.dataset.player = player;
  const ed = { player, weights: new Array(1326).fill(0), brush: 1, mode: "paint", cell: null, box };
  Setup.editors[player] = ed;
  box.append(el("h2", "", player + "'s range"));
  const tools = el("div", "line");
  const slider = el("input");
  Object.assign(slider, { type: "range", min: 0, max: 100, step: 5, value: 100 });
  slider.className = "brush";
  const shown = el("span", "brush-value", "100%");
  slider.addEventListener("input", () => { ed.brush = slider.value / 100; shown.textContent = slider.value + "%"; });
  const modes = el("span", "modes");
  for (const [mode, label] of [["paint", "Paint"], ["hands", "Hands"]]) {
    const b = el("button", mode === "paint" ? "on" : "", label);
    b.type = "button";
    b.dataset.mode = mode;
    b.addEventListener("click", () => {
      ed.mode = mode;
      for (const x of modes.children) x.classList.toggle("on", x === b);
    });
    modes.append(b);
  }
  const clear = el("button", "", "Clear");
  clear.type = "button";
  clear.addEventListener("click", () => { ed.weights.fill(0); gridChanged(ed); });
  tools.append(el("span", "", "weight "), slider, shown, modes, clear);
  box.append(tools);
  const grid = el("div", "grid editor");
  ed.grid = grid;
  App.meta.cells.forEach((name, c) => {
    const cell = el("div", "cell");
    cell.dataset.hand = name;
    const fill = el("div", "fill " + player);
    cell.append(fill, el("span", "name", name));
    cell.addEventListener("mousedown", (e) => {
      e.preventDefault();
      if (ed.mode === "hands") { ed.cell = c; renderCombos(ed); return; }
      Setup.painting = ed;
      paint(ed, c);
    });
    cell.addEventListener("mouseenter", () => { if (Setup.painting === ed) paint(ed, c); });
    grid.append(cell);
  });
  box.append(grid);
  ed.combos = el("div", "combos-edit");
  box.append(ed.combos);
  const text = el("textarea");
  text.rows = 3;
  text.spellcheck = false;
  text.placeholder = "range notation, e.g. TT+,AQs+,KQo:0.5";
  text.dataset.player = player;
  ed.text = text;
  text.addEventListener("input", () => {
    clearTimeout(ed.timer);
    ed.timer = setTimeout(() => textChanged(ed), 300);
  });
  box.append(text);
  ed.msg = el("div", "msg");
  ed.msg.dataset.for = "ranges." + player.toLowerCase();
  box.append(ed.msg);
  const files = el("div", "line");
  const pick = el("select", "range-files");
  const load = el("button", "", "Load");
  load.type = "button";
  load.addEventListener("click", async () => {
    if (!pick.value) return;
    try {
      const got = await api("/api/ranges/load", { name: pick.value });
      ed.text.value = got.text;
      await textChanged(ed);
    } catch (e) {
      setMsg(ed.msg, e.message);
    }
  });
  const name = el("input");
  Object.assign(name, { type: "text", placeholder: "file name", size: 12, maxLength: 120 });
  const save = el("button", "", "Save");
  save.type = "button";
  save.addEventListener("click", async () => {
    try {
      const got = await api("/api/ranges/save", { name: name.value.trim(), text: ed.text.value });
      setMsg(ed.msg, "saved " + got.name, true);
      loadRangeFiles();
    } catch (e) {
      setMsg(ed.msg, e.message);
    }
  });
  files.append(pick, load, name, save);
  box.append(files);
  drawEditor(ed);
  return box;
}

function paint(ed, c) {
  for (const h of cellHands()[c]) ed.weights[h] = ed.brush;
  drawEditor(ed);
}

function drawEditor(ed) {
  const hands = cellHands();
  ed.grid.childNodes.forEach((cell, c) => {
    const ws = hands[c].map((h) => ed.weights[h]);
    const mean = ws.reduce((a, b) => a + b, 0) / ws.length;
    cell.querySelector(".fill").style.height = (100 * mean).toFixed(1) + "%";
    cell.dataset.weight = mean.toFixed(4);
    cell.classList.toggle("mixed", ws.some((w) => w !== ws[0]));
  });
  if (ed.cell !== null) renderCombos(ed);
}

function renderCombos(ed) {
  const box = ed.combos;
  box.replaceChildren();
  if (ed.cell === null) return;
  const title = el("div", "line", "hands of " + App.meta.cells[ed.cell] + ", weight in %:");
  const close = el("button", "", "\u00d7");
  close.type = "button";
  close.addEventListener("click", () => { ed.cell = null; box.replaceChildren(); });
  title.append(close);
  box.append(title);
  const list = el("div", "combo-list");
  for (const h of cellHands()[ed.cell]) {
    const name = App.meta.hands[h];
    const item = el("label", "combo");
    item.append(cardNode(name.slice(0, 2)), cardNode(name.slice(2)));
    const input = el("input");
    Object.assign(input, { type: "number", min: 0, max: 100, step: 5, value: Math.round(100 * ed.weights[h] * 100) / 100 });
    input.dataset.hand = name;
    input.addEventListener("change", () => {
      const v = Math.max(0, Math.min(100, Number(input.value) || 0));
      ed.weights[h] = v / 100;
      gridChanged(ed, true);
    });
    item.append(input);
    list.append(item);
  }
  box.append(list);
}

async function gridChanged(ed, keepCombos) {
  if (!keepCombos) drawEditor(ed);
  else drawEditorCells(ed);
  touched();
  try {
    const got = await api("/api/range/text", { weights: ed.weights });
    ed.text.value = got.text;
    setMsg(ed.msg, "");
    scheduleCheck();
  } catch (e) {
    setMsg(ed.msg, e.message);
  }
}

function drawEditorCells(ed) {
  const keep = ed.cell;
  ed.cell = null;
  drawEditor(ed);
  ed.cell = keep;
}

async function textChanged(ed) {
  touched();
  try {
    const got = await api("/api/range/parse", { text: ed.text.value });
    if (!got.weights) { setMsg(ed.msg, got.problem); return; }
    ed.weights = got.weights;
    setMsg(ed.msg, "");
    drawEditor(ed);
    scheduleCheck();
  } catch (e) {
    setMsg(ed.msg, e.message);
  }
}

async function loadRangeFiles() {
  try {
    const got = await api("/api/ranges");
    for (const pick of document.querySelectorAll("select.range-files")) {
      pick.replaceChildren(el("option", "", ""), ...got.files.map((f) => el("option", "", f)));
    }
  } catch (e) {
    showError(e.message);
  }
}

// -- bet sizes --------------------------------------------------------------------

const SIZE_FIELDS = [["bet", "OOP bet"], ["raise", "OOP raise"], ["ip_bet", "IP bet"], ["ip_raise", "IP raise"],
  ["max_raises", "max raises"], ["donk", "OOP donk"]];

function playedStreets() {
  const n = Setup.board.length;
  return STREETS.slice(n >= 3 ? n - 3 : 0);
}

function renderSizes() {
  const t = $("sizes");
  t.replaceChildren(row(["", ...SIZE_FIELDS.map((f) => f[1])], true));
  for (const street of playedStreets()) {
    const values = Setup.sizes[street] || (Setup.sizes[street] = { bet: "50%", raise: "a", ip_bet: "", ip_raise: "",
      max_raises: "1", donk: "" });
    const tr = el("tr");
    tr.append(el("th", "", street));
    for (const [key] of SIZE_FIELDS) {
      const td = el("td");
      const input = el("input");
      input.type = key === "max_raises" ? "number" : "text";
      if (key === "max_raises") Object.assign(input, { min: 0, max: 20, step: 1 });
      input.size = key === "max_raises" ? 3 : 10;
      input.value = values[key];
      input.dataset.street = street;
      input.dataset.key = key;
      input.placeholder = key.startsWith("ip_") ? "as OOP" : key === "donk" ? "as bets" : "";
      input.addEventListener("input", () => { values[key] = input.value; touched(); scheduleCheck(); });
      const msg = el("div", "msg");
      msg.dataset.for = `tree.${street}.${key === "raise" ? "raise" : key}`;
      td.append(input, msg);
      tr.append(td);
    }
    const msg = el("div", "msg");
    msg.dataset.for = "tree." + street;
    tr.lastChild.append(msg);
    t.append(tr);
  }
}

// "none" is no size at all; an empty IP or donk field takes OOP's sizes (null).
function sizeValue(text, key) {
  const v = text.trim();
  if (v.toLowerCase() === "none") return key === "donk" ? false : "";
  if (v === "" && (key.startsWith("ip_") || key === "donk")) return null;
  return v;
}

function setupForm() {
  const tree = {};
  const allin = $("allin").value.trim();
  if (allin !== "") tree.allin_threshold = Number(allin) / 100;
  for (const street of playedStreets()) {
    const v = Setup.sizes[street];
    const rules = {};
    for (const [key] of SIZE_FIELDS) {
      if (key === "max_raises") rules.max_raises = v.max_raises === "" ? 1 : Number(v.max_raises);
      else rules[key] = sizeValue(v[key], key);
    }
    tree[street] = rules;
  }
  return {
    board: Setup.board.join(" "),
    pot: Number($("pot").value),
    stack: Number($("stack").value),
    ranges: { oop: Setup.editors.OOP.text.value, ip: Setup.editors.IP.text.value },
    tree,
  };
}

// The form of the game in the engine (after a reload, or from `view GAME`), back into the fields.
function fillForm(form) {
  Setup.board = form.board.split(/\s+/).filter(Boolean).map((c) => c[0].toUpperCase() + c[1].toLowerCase());
  $("pot").value = form.pot;
  $("stack").value = form.stack;
  const tree = form.tree || {};
  $("allin").value = tree.allin_threshold ? +(100 * tree.allin_threshold).toFixed(2) : "";
  Setup.sizes = {};
  for (const street of STREETS) {
    const r = tree[street];
    if (!r) continue;
    const text = (x, key) => (x === null || x === undefined ? "" : x === false || x === "" ? (key === "bet" || key === "raise" ? "" : "none") : String(x));
    Setup.sizes[street] = { bet: text(r.bet, "bet"), raise: text(r.raise, "raise"), ip_bet: text(r.ip_bet, "ip"),
      ip_raise: text(r.ip_raise, "ip"), max_raises: String(r.max_raises ?? tree.max_raises ?? 1), donk: text(r.donk, "donk") };
  }
  renderBoardPicker();
  renderSizes();
  for (const [p, key] of [["OOP", "oop"], ["IP", "ip"]]) {
    Setup.editors[p].text.value = form.ranges[key];
    textChanged(Setup.editors[p]);
  }
  Setup.touched = false;
}

// -- checking and building ------------------------------------------------------------

function touched() {
  Setup.touched = true;
}

function scheduleCheck() {
  clearTimeout(Setup.checkTimer);
  Setup.checkTimer = setTimeout(checkForm, 250);
}

function showFieldErrors(errors) {
  for (const box of document.querySelectorAll("#tab-setup .msg[data-for]")) {
    if (box.dataset.for.startsWith("ranges.") && !(box.dataset.for in errors) && box.classList.contains("good")) continue;
    setMsg(box, errors[box.dataset.for] || "");
    const input = box.parentElement.querySelector("input, textarea");
    if (input && box.parentElement.tagName === "TD") input.classList.toggle("bad", !!errors[box.dataset.for]);
  }
  const unplaced = Object.keys(errors).filter((k) => !document.querySelector(`#tab-setup .msg[data-for="${CSS.escape(k)}"]`));
  if (unplaced.length) setMsg(document.querySelector('.msg[data-for="form"]'), unplaced.map((k) => `${k}: ${errors[k]}`).join("; "));
}

async function checkForm() {
  try {
    const got = await api("/api/check", setupForm());
    showFieldErrors(got.errors);
    $("build").disabled = Object.keys(got.errors).length > 0;
    return got.errors;
  } catch (e) {
    showError(e.message);
    return { form: e.message };
  }
}

async function build() {
  const errors = await checkForm();
  if (Object.keys(errors).length) return;
  const msg = document.querySelector('.msg[data-for="form"]');
  setMsg(msg, "building\u2026");
  const started = performance.now();
  try {
    const preview = await api("/api/setup", setupForm());
    setMsg(msg, `built in ${((performance.now() - started) / 1000).toFixed(2)} s`, true);
    Setup.touched = false;
    renderPreview(preview);
    refreshSoon();
  } catch (e) {
    setMsg(msg, e.message);
  }
}

function mb(x) {
  return x === null || x === undefined ? "\u2013" : x < 10 ? x.toFixed(1) : Math.round(x).toString();
}

function renderPreview(p) {
  const box = $("preview");
  box.replaceChildren();
  if (!p) return;
  const t = el("table");
  t.append(row(["decision nodes", p.decisions.toLocaleString("en")]));
  t.append(row(["by street (flop, turn, river)", p.decisions_by_street.map((x) => x.toLocaleString("en")).join(" / ")]));
  t.append(row(["lines", String(p.lines)]));
  t.append(row(["nodes in all", p.nodes.toLocaleString("en")]));
  const tree = el("div");
  tree.append(el("h3", "", "The tree"), t);
  box.append(tree);
  const m = el("table");
  m.id = "memory";
  m.append(row(["level", "storage (MB)", "engine in all (MB)", ""], true));
  for (const l of p.levels) {
    const tr = row([`${l.level} ${l.name}`, (l.bound === "about" ? "\u2248 " : l.bound === "below" ? "< " : "") + mb(l.storage_mb),
      mb(l.total_mb), l.level === p.auto ? "auto takes this" : ""]);
    if (l.level === p.auto) tr.classList.add("auto");
    m.append(tr);
  }
  const memory = el("div");
  memory.append(el("h3", "", "Memory"), m);
  box.append(memory);
  const mem = p.memory || {};
  memory.append(el("div", "muted note", `The engine plans ${p.uncompressed_mb ?? "?"} MB of uncompressed storage; levels 1 to 4 ` +
    `are the shares its automatic choice counts on. Free memory: ${mem.available ?? "?"} of ${mem.physical ?? "?"} MB.`));
}

function setupEvents(what, data) {
  if (what === "meta") {
    const editors = $("range-editors");
    editors.replaceChildren(makeEditor("OOP"), makeEditor("IP"));
    renderBoardPicker();
    renderSizes();
    loadRangeFiles();
    $("board-clear").addEventListener("click", () => { Setup.board = []; touched(); renderBoardPicker(); renderSizes(); scheduleCheck(); });
    for (const id of ["pot", "stack", "allin"]) $(id).addEventListener("input", () => { touched(); scheduleCheck(); });
    $("build").addEventListener("click", build);
    document.addEventListener("mouseup", () => {
      if (Setup.painting) {
        const ed = Setup.painting;
        Setup.painting = null;
        gridChanged(ed);
      }
    });
  } else if (what === "first" || (what === "changed" && !Setup.touched)) {
    if (data.form && (what === "first" || JSON.stringify(data.form) !== JSON.stringify(Setup.shownForm))) {
      Setup.shownForm = data.form;
      fillForm(data.form);
      renderPreview(data.preview);
    }
  }
}

onChange(setupEvents);
