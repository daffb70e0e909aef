// The viewer's page: polls the status until the game is ready, then shows the
// node named in the address's fragment (#r:0:b50:c) and follows clicks there.
"use strict";

const SUIT_SIGN = { s: "\u2660", h: "\u2665", d: "\u2666", c: "\u2663" };
const $ = (id) => document.getElementById(id);
let node = null;
let pathRe = null;  // the server's node-path grammar, from the status
let pinned = null;
let chosen = null;  // the main grid's player when picked by hand; else the one to act

function el(tag, className, text) {
  const e = document.createElement(tag);
  if (className) e.className = className;
  if (text !== undefined) e.textContent = text;
  return e;
}

function pct(x, digits = 1) {
  return x === null || x === undefined ? "\u2013" : (100 * x).toFixed(digits) + "%";
}

function num(x, digits = 2) {
  return x === null || x === undefined ? "\u2013" : x.toFixed(digits);
}

function cardNode(card) {
  return el("span", "s-" + card[1], card[0] + SUIT_SIGN[card[1]]);
}

async function getJSON(url) {
  const answer = await fetch(url);
  const data = await answer.json();
  if (!answer.ok) throw new Error(data.error || answer.statusText);
  return data;
}

function showError(message) {
  const box = $("error");
  box.hidden = !message;
  box.textContent = message || "";
}

function currentPath() {
  const text = decodeURIComponent(location.hash.slice(1));
  return text === "" ? "r:0" : text;
}

function go(path) {
  location.hash = "#" + path;
}

// -- progress ---------------------------------------------------------------

function progressShare(reports, target) {
  // Exploitability falls about geometrically: measure the way on a log scale.
  if (!reports.length || !target) return 0;
  const first = Math.max(reports[0].exploitability, 1e-12);
  const last = Math.max(reports[reports.length - 1].exploitability, 1e-12);
  if (last <= target || first <= target) return 1;
  return Math.max(0, Math.min(1, Math.log(first / last) / Math.log(first / target)));
}

function showStatus(st) {
  if (st.path_pattern) pathRe = new RegExp("^(?:" + st.path_pattern + ")$");
  const g = st.game || {};
  $("game").textContent = g.name + (g.board ? "  \u00b7  " + g.board.join(" ") + "  \u00b7  pot " + g.pot : "");
  const reports = st.reports || [];
  const last = reports[reports.length - 1];
  $("progress").hidden = st.state !== "solving";
  if (st.state === "solving") {
    $("status").textContent = "solving\u2026 " + st.seconds + " s";
    $("bar-fill").style.width = (100 * progressShare(reports, g.target)).toFixed(1) + "%";
    $("progress-text").textContent = last
      ? `iteration ${last.iteration ?? "?"}, exploitable for ${last.exploitability.toFixed(3)} chips` +
        (g.pot ? ` (${(100 * last.exploitability / g.pot).toFixed(3)}% of the pot)` : "")
      : "building the tree\u2026";
  } else if (st.state === "ready") {
    const r = g.results;
    $("status").textContent = r
      ? (r.iterations == null ? "loaded" : `solved: ${r.iterations} iterations`) +
        `, exploitable for ${pct(r.exploitability_share, 3)} of the pot`
      : "loaded";
  } else {
    $("status").textContent = st.state;
  }
  showError(st.state === "error" ? st.message : "");
}

async function poll() {
  let st;
  try {
    st = await getJSON("/api/status");
  } catch (e) {
    showError("the viewer's server doesn't answer: " + e.message);
    return;
  }
  showStatus(st);
  if (st.state === "ready") loadNode();
  else if (st.state !== "error") setTimeout(poll, 300);
}

// -- one node ---------------------------------------------------------------

async function loadNode() {
  const path = currentPath();
  if (pathRe && !pathRe.test(path)) {
    showError("not a node path: " + path);
    return;
  }
  try {
    node = await getJSON("/api/node?path=" + encodeURIComponent(path) + (chosen ? "&player=" + chosen : ""));
  } catch (e) {
    showError(e.message);
    return;
  }
  showError("");
  pinned = null;
  render();
}

function actionColor(name) {
  const a = node.actions.find((x) => x.name === name);
  return a ? a.color : "#aab2bd";
}

function render() {
  renderLine();
  renderNext();
  const who = node.player;
  $("grid-title").textContent = node.acting === who
    ? `${who} to act: strategy, shaded by range weight`
    : `${who}'s range`;
  for (const b of document.querySelectorAll("#players button")) b.classList.toggle("on", b.dataset.player === who);
  renderGrid($("grid"), node.cells, true);
  for (const p of ["OOP", "IP"]) {
    renderGrid($("range-" + p), node.ranges[p].map((w, i) => ({ hand: node.cells[i].hand, weight: w })), false, p);
  }
  renderLegend();
  renderSummary();
  renderClasses();
  showCombos(null);
  $("view").hidden = false;
  document.body.dataset.path = node.path;  // says which node the page shows
}

function renderLine() {
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
  nav.append(el("span", "here", "  " + kindText() +
    "  \u00b7  board " + node.board.join(" ") + "  \u00b7  in: OOP " + node.invested[0] + ", IP " + node.invested[1]));
}

function kindText() {
  if (node.acting) return node.acting + " to act";
  if (node.kind === "SPLIT_NODE") return node.cards.length ? "a card comes" : "showdown";
  return node.kind === "END_NODE" ? "the hand ends" : node.kind.toLowerCase();
}

function renderNext() {
  const box = $("next");
  box.replaceChildren();
  for (const a of node.actions) {
    const b = el("button", "action", `${a.label}  ${pct(a.freq)}`);
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
      cell.addEventListener("mouseenter", () => { if (!pinned) showCombos(c.hand); });
      cell.addEventListener("click", () => {
        grid.querySelectorAll(".pinned").forEach((x) => x.classList.remove("pinned"));
        pinned = pinned === c.hand ? null : c.hand;
        if (pinned) cell.classList.add("pinned");
        showCombos(c.hand);
      });
    }
    grid.append(cell);
  }
}

function renderLegend() {
  const box = $("legend");
  box.replaceChildren();
  for (const a of node.actions) {
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
  for (const a of node.actions) {
    const s = el("span");
    s.style.width = (100 * mix[a.name]).toFixed(2) + "%";
    s.style.background = a.color;
    s.title = a.label + " " + pct(mix[a.name]);
    bar.append(s);
  }
  return bar;
}

function row(cells, header) {
  const tr = el("tr");
  for (const c of cells) {
    const td = el(header ? "th" : "td");
    if (c instanceof Node) td.append(c); else td.textContent = c;
    tr.append(td);
  }
  return tr;
}

function renderSummary() {
  const box = $("summary");
  box.replaceChildren();
  const s = node.summary;
  const t = el("table");
  t.append(row(["", "OOP", "IP"], true));
  t.append(row(["EV (chips)", num(s.ev.OOP), num(s.ev.IP)]));
  t.append(row(["equity", pct(s.eq.OOP), pct(s.eq.IP)]));
  t.append(row(["range (combos)", num(s.range_sums.OOP, 1), num(s.range_sums.IP, 1)]));
  box.append(t);
  box.append(el("div", "muted", "the line is played " + pct(s.line_freq, 2) + " of the time"));
  if (node.actions.length) {
    const a = el("table");
    a.append(row(["action", "frequency"], true));
    for (const x of node.actions) {
      const sw = el("span", "swatch");
      sw.style.background = x.color;
      const name = el("span");
      name.append(sw, x.label);
      a.append(row([name, pct(x.freq)]));
    }
    box.append(a);
  }
}

function renderClasses() {
  const box = $("classes");
  box.replaceChildren();
  const t = el("table");
  t.append(row([node.player + "'s hands", "share", "combos", node.actions.length && node.acting === node.player ? "actions" : ""], true));
  for (const group of [node.classes, node.draws]) {
    for (const c of group) {
      t.append(row([c.name.replaceAll("_", " "), pct(c.share), String(c.combos), mixBar(c.mix)]));
    }
  }
  box.append(t);
}

function showCombos(hand) {
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
  const t = el("table");
  const acts = list[0].strategy ? node.actions : [];
  t.append(row(["hand", "weight", ...acts.map((a) => a.label), "EV", "equity"], true));
  for (const c of list) {
    const hand = el("span");
    hand.append(cardNode(c.hand.slice(0, 2)), cardNode(c.hand.slice(2)));
    t.append(row([hand, num(c.weight, 3), ...acts.map((a) => pct(c.strategy[a.name])), num(c.ev), pct(c.eq)]));
  }
  box.append(t);
}

for (const b of document.querySelectorAll("#players button")) {
  b.addEventListener("click", () => { chosen = b.dataset.player; loadNode(); });
}
window.addEventListener("hashchange", () => { chosen = null; loadNode(); });
poll();
