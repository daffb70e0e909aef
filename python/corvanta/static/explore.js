// Explore: the node named in the address's fragment (#r:0:b50:c), its strategy grid, sizes
// in chips and as a share of the pot, EVs and equities (fetched after the node, since on a
// flop tree each is a pass of the engine), the report over the cards of a chance node,
// export, and locking the node's strategy.
"use strict";

// A node path as the client reads it; the grammar comes from the server with the page's meta.
function isPath(text) {
  return new RegExp("^(?:" + App.meta.path_pattern + ")$").test(text);
}
const Explore = { node: null, values: null, pinned: null, chosen: null, picked: new Set(), cardSort: { key: "card", desc: false } };

function currentPath() {
  const text = decodeURIComponent(location.hash.slice(1));
  return text === "" ? "r:0" : text;
}

function go(path) {
  location.hash = "#" + path;
}

// A bet to level L (what the player has put in since the start) as chips put in now and
// as a share of the pot once the bet faced is called.
function sizeText(a, node) {
  if (a.name === "f" || a.name === "c") return "";
  const level = Number(a.name.slice(1));
  const me = node.acting === "IP" ? 1 : 0;
  const top = Math.max(node.invested[0], node.invested[1]);
  const chips = level - node.invested[me];
  const share = (level - top) / (node.pot + 2 * top);
  return `${+chips.toFixed(2)} chips, ${(100 * share).toFixed(0)}% pot`;
}

async function loadNode() {
  if (App.tab !== "explore") return;
  const path = currentPath();
  if (!isPath(path)) {
    showError("not a node path: " + path);
    return;
  }
  const st = App.status;
  if (!st || !["built", "solved"].includes(st.state)) {
    $("view").hidden = true;
    $("line").replaceChildren(el("span", "muted", st && st.state === "solving"
      ? "solving\u2026 the tree can be explored when the solver stops" : "set up and solve a game, or open a tree file"));
    $("next").replaceChildren();
    return;
  }
  const generation = App.generation;
  let node;
  try {
    node = await api("/api/node?path=" + encodeURIComponent(path) + (Explore.chosen ? "&player=" + Explore.chosen : ""));
  } catch (e) {
    showError(e.message);
    return;
  }
  showError("");
  Explore.node = node;
  Explore.values = null;
  Explore.pinned = null;
  Explore.picked.clear();
  render();
  loadValues(node, generation);
  if (node.cards.length) loadCards(node);
}

async function loadValues(node, generation) {
  try {
    const values = await api(`/api/values?path=${encodeURIComponent(node.path)}&player=${node.player}`);
    if (Explore.node !== node || generation !== App.generation) return;
    Explore.values = values;
    renderSummary();
    if (Explore.pinned) showCombos(Explore.pinned);
    document.body.dataset.values = node.path;
  } catch (e) {
    if (Explore.node === node) $("summary").append(el("div", "msg", "EVs: " + e.message));
  }
}

function render() {
  const node = Explore.node;
  renderLine();
  renderNext();
  const who = node.player;
  $("grid-title").textContent = node.acting === who ? `${who} to act: strategy, shaded by range weight` : `${who}'s range`;
  for (const b of document.querySelectorAll("#players button")) b.classList.toggle("on", b.dataset.player === who);
  renderGrid($("grid"), node.cells, true);
  for (const p of ["OOP", "IP"]) {
    renderGrid($("range-" + p), node.ranges[p].map((w, i) => ({ hand: node.cells[i].hand, weight: w })), false, p);
  }
  renderLegend();
  renderSummary();
  renderClasses();
  renderLock();
  $("cards-box").hidden = !node.cards.length;
  showCombos(null);
  $("view").hidden = false;
  document.body.dataset.path = node.path;  // says which node the page shows
}

function renderLine() {
  const node = Explore.node;
  const nav = $("line");
  nav.replaceChildren();
  const start = el("a", "", "start");
  start.href = "#r:0";
  nav.append(start);
  for (const step of node.steps) {
    const link = el("a");
    link.href = "#" + step.path;
    if (step.card) link.append(cardNode(step.segment));
    else link.textContent = step.segment;
    nav.append(" \u203a ", link);
  }
  nav.append(el("span", "here", "  " + kindText() + "  \u00b7  board " + node.board.join(" ") +
    `  \u00b7  pot ${node.pot + node.invested[0] + node.invested[1]}  \u00b7  in: OOP ${node.invested[0]}, IP ${node.invested[1]}` +
    (node.locked ? "  \u00b7  locked" : "")));
}

function kindText() {
  const node = Explore.node;
  if (node.acting) return node.acting + " to act";
  if (node.kind === "SPLIT_NODE") return node.cards.length ? "a card comes" : "showdown";
  return node.kind === "END_NODE" ? "the hand ends" : node.kind.toLowerCase();
}

function renderNext() {
  const node = Explore.node;
  const box = $("next");
  box.replaceChildren();
  for (const a of node.actions) {
    const size = sizeText(a, node);
    const b = el("button", "action", `${a.label}${size ? " (" + size + ")" : ""}  ${pct(a.freq)}`);
    b.style.background = a.color;
    b.dataset.action = a.name;
    b.addEventListener("click", () => go(a.path));
    box.append(b);
  }
  if (node.cards.length) {
    box.append(el("span", "muted", "next card:"));
    const picker = el("div", "picker");
    for (const card of node.cards) {
      const b = el("button", "card");
      b.dataset.card = card;
      b.append(cardNode(card));
      b.addEventListener("click", () => go(node.path + ":" + card));
      picker.append(b);
    }
    box.append(picker);
  } else if (!node.actions.length) {
    box.append(el("span", "muted", node.kind === "END_NODE" ? "the hand ends here" : "showdown"));
  }
}

function renderGrid(grid, cells, main, player) {
  const node = Explore.node;
  grid.replaceChildren();
  for (const c of cells) {
    const cell = el("div", "cell");
    cell.dataset.hand = c.hand;
    const fill = el("div", "fill");
    fill.style.height = (100 * Math.min(1, c.weight)).toFixed(1) + "%";
    if (main && c.mix) {
      for (const a of node.actions) {
        const seg = el("span", "seg");
        seg.dataset.action = a.name;
        seg.dataset.freq = c.mix[a.name].toFixed(4);
        seg.style.width = (100 * c.mix[a.name]).toFixed(2) + "%";
        seg.style.background = a.color;
        fill.append(seg);
      }
    } else {
      fill.classList.add(main ? "none" : player);
    }
    cell.append(fill, el("span", "name", c.hand));
    if (main) {
      cell.classList.toggle("picked", Explore.picked.has(c.hand));
      cell.addEventListener("mouseenter", () => { if (!Explore.pinned) showCombos(c.hand); });
      cell.addEventListener("click", () => {
        if (lockMode() === "cells" && node.acting === node.player && c.weight > 0) {
          if (Explore.picked.has(c.hand)) Explore.picked.delete(c.hand); else Explore.picked.add(c.hand);
          cell.classList.toggle("picked", Explore.picked.has(c.hand));
          renderPicked();
        }
        grid.querySelectorAll(".pinned").forEach((x) => x.classList.remove("pinned"));
        Explore.pinned = Explore.pinned === c.hand ? null : c.hand;
        if (Explore.pinned) cell.classList.add("pinned");
        showCombos(c.hand);
      });
    }
    grid.append(cell);
  }
}

function renderLegend() {
  const box = $("legend");
  box.replaceChildren();
  for (const a of Explore.node.actions) {
    const item = el("span");
    const sw = el("span", "swatch");
    sw.style.background = a.color;
    item.append(sw, a.label);
    box.append(item);
  }
}

function mixBar(mix) {
  if (!mix) return "";
  const bar = el("div", "mix");
  for (const a of Explore.node.actions) {
    const s = el("span");
    s.style.width = (100 * mix[a.name]).toFixed(2) + "%";
    s.style.background = a.color;
    s.title = a.label + " " + pct(mix[a.name]);
    bar.append(s);
  }
  return bar;
}

function renderSummary() {
  const node = Explore.node;
  const box = $("summary");
  box.replaceChildren();
  const s = node.summary;
  const v = Explore.values;
  const t = el("table");
  t.id = "node-values";
  t.append(row(["", "OOP", "IP"], true));
  t.append(row(["EV (chips)", v ? num(v.ev.OOP) : "\u2026", v ? num(v.ev.IP) : "\u2026"]));
  t.append(row(["equity", v ? pct(v.eq.OOP) : "\u2026", v ? pct(v.eq.IP) : "\u2026"]));
  t.append(row(["range (combos)", num(s.range_sums.OOP, 1), num(s.range_sums.IP, 1)]));
  box.append(t);
  box.append(el("div", "muted", "the line is played " + pct(s.line_freq, 2) + " of the time"));
  if (node.actions.length) {
    const a = el("table");
    a.append(row(["action", "size", "frequency"], true));
    for (const x of node.actions) {
      const sw = el("span", "swatch");
      sw.style.background = x.color;
      const name = el("span");
      name.append(sw, x.label);
      a.append(row([name, sizeText(x, node) || "\u2013", pct(x.freq)]));
    }
    box.append(a);
  }
}

function renderClasses() {
  const node = Explore.node;
  const box = $("classes");
  box.replaceChildren();
  const t = el("table");
  t.append(row([node.player + "'s hands", "share", "combos", node.actions.length && node.acting === node.player ? "actions" : ""], true));
  for (const group of [node.classes, node.draws]) {
    for (const c of group) t.append(row([c.name.replaceAll("_", " "), pct(c.share), String(c.combos), mixBar(c.mix)]));
  }
  box.append(t);
}

function showCombos(hand) {
  const node = Explore.node;
  const box = $("combos");
  box.replaceChildren();
  const list = hand ? node.combos[hand] : null;
  $("combos-title").textContent = hand ? "Hands of " + hand : "Hands";
  if (!list) {
    box.className = "muted";
    box.textContent = hand ? "none in the range here" : "Point at a cell to list its hands; click to keep them.";
    return;
  }
  box.className = "";
  const values = Explore.values && Explore.values.player === node.player ? Explore.values.hands : {};
  const t = el("table");
  const acts = list[0].strategy ? node.actions : [];
  t.append(row(["hand", "weight", ...acts.map((a) => a.label), "EV", "equity"], true));
  for (const c of list) {
    const hand = el("span");
    hand.append(cardNode(c.hand.slice(0, 2)), cardNode(c.hand.slice(2)));
    const v = values[c.hand] || [null, null];
    t.append(row([hand, num(c.weight, 3), ...acts.map((a) => pct(c.strategy[a.name])), num(v[0]), pct(v[1])]));
  }
  box.append(t);
}

// -- the cards of a chance node -----------------------------------------------------

async function loadCards(node) {
  const box = $("cards-table");
  box.replaceChildren(el("div", "muted", "reading each card\u2026"));
  let report;
  try {
    report = await api(`/api/cards?path=${encodeURIComponent(node.path)}&values=${$("cards-ev").checked ? 1 : 0}`);
  } catch (e) {
    box.replaceChildren(el("div", "msg", e.message));
    return;
  }
  if (Explore.node !== node) return;
  Explore.cards = report;
  const metric = $("cards-metric");
  const was = metric.value;
  const options = [["freq", "reach of the line"], ["eq.OOP", "equity OOP"], ["eq.IP", "equity IP"]];
  if (report.values) options.push(["ev.OOP", "EV OOP"], ["ev.IP", "EV IP"]);
  for (const a of report.actions) options.push(["act." + a, (report.acting || "") + " " + a]);
  metric.replaceChildren(...options.map(([k, label]) => { const o = el("option", "", label); o.value = k; return o; }));
  if (options.some((o) => o[0] === was)) metric.value = was;
  renderCards();
  document.body.dataset.cards = node.path + (report.values ? " with EVs" : "");
}

function cardValue(r, key) {
  const [kind, name] = key.split(".");
  if (kind === "freq") return r.freq;
  if (kind === "act") return r.actions[name] ?? null;
  return r[kind][name] ?? null;
}

function renderCards() {
  const report = Explore.cards;
  if (!report) return;
  const key = $("cards-metric").value || "freq";
  const percent = !key.startsWith("ev.");
  barChart($("cards-chart"), report.cards.map((r) => ({ label: r.card, value: cardValue(r, key),
    color: /[hd]$/.test(r.card) ? "#c0282d" : "#48515c" })), { percent });
  const columns = [
    { key: "card", label: "card", value: (r) => "23456789TJQKA".indexOf(r.card[0]) * 4 + "cdhs".indexOf(r.card[1]),
      fmt: (r) => { const s = el("a"); s.href = "#" + r.path; s.append(cardNode(r.card)); return s; } },
    { key: "freq", label: "reach", value: (r) => r.freq, fmt: (r) => pct(r.freq, 2) },
    { key: "ev.OOP", label: "EV OOP", value: (r) => r.ev.OOP, fmt: (r) => num(r.ev.OOP) },
    { key: "ev.IP", label: "EV IP", value: (r) => r.ev.IP, fmt: (r) => num(r.ev.IP) },
    { key: "eq.OOP", label: "equity OOP", value: (r) => r.eq.OOP, fmt: (r) => pct(r.eq.OOP) },
    { key: "eq.IP", label: "equity IP", value: (r) => r.eq.IP, fmt: (r) => pct(r.eq.IP) },
    ...report.actions.map((a) => ({ key: "act." + a, label: `${report.acting || ""} ${a}`,
      value: (r) => r.actions[a] ?? null, fmt: (r) => pct(r.actions[a]) })),
  ].filter((c) => report.values || !c.key.startsWith("ev."));
  sortableTable($("cards-table"), columns, report.cards, Explore.cardSort);
}

// -- export ---------------------------------------------------------------------

async function exportNode(format) {
  const node = Explore.node;
  try {
    const data = await api(`/api/export?path=${encodeURIComponent(node.path)}&player=${node.player}&format=${format}`);
    const name = "node-" + node.path.replaceAll(":", "_") + "." + format;
    download(name, format === "csv" ? data : JSON.stringify(data, null, 1), format === "csv" ? "text/csv" : "application/json");
  } catch (e) {
    showError(e.message);
  }
}

// -- locks ----------------------------------------------------------------------

function lockMode() {
  const on = document.querySelector('input[name="lock-mode"]:checked');
  return on ? on.value : "all";
}

function renderPicked() {
  const cells = [...Explore.picked];
  $("lock-picked").textContent = lockMode() === "cells"
    ? (cells.length ? "picked: " + cells.join(" ") : "click cells of the grid to pick them") : "";
}

function renderLock() {
  const node = Explore.node;
  const can = !!node.acting && node.acting === node.player && node.actions.length > 0;
  $("lock-box").hidden = !can;
  if (!can) return;
  const box = $("lock-sliders");
  box.replaceChildren();
  for (const a of node.actions) {
    const line = el("label", "slider");
    const sw = el("span", "swatch");
    sw.style.background = a.color;
    const input = el("input");
    Object.assign(input, { type: "range", min: 0, max: 100, step: 1, value: Math.round(100 * (a.freq ?? 0)) });
    input.dataset.action = a.name;
    const shown = el("span", "", input.value + "%");
    input.addEventListener("input", () => { balance(input); });
    line.append(sw, el("span", "label", a.label), input, shown);
    box.append(line);
  }
  balance(null);
  renderPicked();
  renderCompare();
}

// The shares add up to 100: the last action that wasn't moved takes the rest.
function balance(moved) {
  const inputs = [...document.querySelectorAll("#lock-sliders input")];
  const others = inputs.filter((x) => x !== moved);
  let rest = 100 - (moved ? Number(moved.value) : 0);
  others.forEach((x, i) => {
    if (i === others.length - 1) x.value = Math.max(0, rest);
    else { x.value = Math.min(Number(x.value), Math.max(0, rest)); rest -= Number(x.value); }
  });
  if (!moved && inputs.length) {
    const total = inputs.reduce((s, x) => s + Number(x.value), 0);
    inputs[inputs.length - 1].value = Math.max(0, Number(inputs[inputs.length - 1].value) + 100 - total);
  }
  for (const x of inputs) x.nextSibling.textContent = x.value + "%";
}

function lockMix() {
  const mix = {};
  for (const x of document.querySelectorAll("#lock-sliders input")) mix[x.dataset.action] = Number(x.value) / 100;
  return mix;
}

async function lockNode() {
  const node = Explore.node;
  const body = { path: node.path };
  if (lockMode() === "all") body.all = lockMix();
  else {
    if (!Explore.picked.size) { setMsg($("lock-msg"), "pick cells of the grid first"); return; }
    body.cells = Object.fromEntries([...Explore.picked].map((c) => [c, lockMix()]));
  }
  try {
    const got = await api("/api/lock", body);
    setMsg($("lock-msg"), `locked ${got.what} at ${got.path}; solve again to see the effect`, true);
    refreshSoon();
  } catch (e) {
    setMsg($("lock-msg"), e.message);
  }
}

async function unlockNode() {
  try {
    await api("/api/unlock", { path: Explore.node.path });
    setMsg($("lock-msg"), "unlocked", true);
    refreshSoon();
  } catch (e) {
    setMsg($("lock-msg"), e.message);
  }
}

// EVs of the game before the first lock and now, side by side.
function renderCompare() {
  const box = $("lock-compare");
  box.replaceChildren();
  const st = App.status;
  if (!st || !st.locks || !st.locks.length) return;
  const before = st.locks[0].before;
  const now = st.results;
  const t = el("table");
  t.id = "lock-table";
  t.append(row(["EV (chips)", "before the locks", "now"], true));
  t.append(row(["OOP", before ? num(before.ev_oop, 3) : "\u2013", now ? num(now.ev_oop, 3) : "\u2013"]));
  t.append(row(["IP", before ? num(before.ev_ip, 3) : "\u2013", now ? num(now.ev_ip, 3) : "\u2013"]));
  box.append(t, el("div", "muted", "locked: " + st.locks.map((l) => `${l.path} (${l.what})`).join(", ")));
}

function exploreEvents(what) {
  if (what === "meta") {
    for (const b of document.querySelectorAll("#players button")) {
      b.addEventListener("click", () => { Explore.chosen = b.dataset.player; loadNode(); });
    }
    window.addEventListener("hashchange", () => {
      Explore.chosen = null;
      if (App.tab !== "explore") showTab("explore"); else loadNode();
    });
    $("export-csv").addEventListener("click", () => exportNode("csv"));
    $("export-json").addEventListener("click", () => exportNode("json"));
    $("lock").addEventListener("click", lockNode);
    $("unlock").addEventListener("click", unlockNode);
    $("resolve").addEventListener("click", async () => {
      if (await startSolve(true)) setMsg($("lock-msg"), "solving again\u2026", true);
    });
    for (const r of document.querySelectorAll('input[name="lock-mode"]')) r.addEventListener("change", renderPicked);
    $("cards-metric").addEventListener("change", renderCards);
    $("cards-ev").addEventListener("change", () => loadCards(Explore.node));
  } else if (what === "tab") {
    if (App.tab === "explore") loadNode();
  } else if (what === "changed" || what === "first") {
    if (App.status.state !== "solving" && $("lock-msg").textContent.startsWith("solving")) setMsg($("lock-msg"), "");
    if (App.tab === "explore") loadNode();
  } else if (what === "status" && App.tab === "explore" && Explore.node) {
    renderCompare();
  }
}

onChange(exploreEvents);
