// The app's page: the token, the API, the tabs, the status of the one engine, solving,
// files, and the SVG charts the other parts draw. Plain script files, no build step:
// app.js first, then setup.js, explore.js and study.js, which share what this one defines.
"use strict";

const $ = (id) => document.getElementById(id);
const SUIT_SIGN = { s: "\u2660", h: "\u2665", d: "\u2666", c: "\u2663" };
const RANKS = "AKQJT98765432";
const SUITS = "shdc";
const App = { meta: null, status: null, generation: -1, tab: "setup", listeners: [] };

// The launch token comes in the address once; the tab keeps it, the address drops it.
(function keepToken() {
  const query = new URLSearchParams(location.search);
  const given = query.get("token");
  if (given) {
    sessionStorage.setItem("corvanta-token", given);
    history.replaceState(null, "", location.pathname + location.hash);
  }
  App.token = sessionStorage.getItem("corvanta-token") || "";
})();

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
  return x === null || x === undefined ? "\u2013" : Number(x).toFixed(digits);
}

function cardNode(card) {
  return el("span", "s-" + card[1], card[0] + SUIT_SIGN[card[1]]);
}

async function api(path, body) {
  const init = { headers: { "X-Corvanta-Token": App.token } };
  if (body !== undefined) {
    init.method = "POST";
    init.headers["Content-Type"] = "application/json";
    init.body = JSON.stringify(body);
  }
  const answer = await fetch(path, init);
  const kind = answer.headers.get("Content-Type") || "";
  const data = kind.startsWith("application/json") ? await answer.json() : await answer.text();
  if (!answer.ok) {
    const e = new Error((data && data.error) || answer.statusText);
    e.status = answer.status;
    throw e;
  }
  return data;
}

function showError(message) {
  const box = $("error");
  box.hidden = !message;
  box.textContent = message || "";
}

function setMsg(box, message, good) {
  box.textContent = message || "";
  box.classList.toggle("good", !!good);
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

function download(name, text, kind) {
  const url = URL.createObjectURL(new Blob([text], { type: kind }));
  const a = el("a");
  a.href = url;
  a.download = name;
  document.body.append(a);
  a.click();
  a.remove();
  setTimeout(() => URL.revokeObjectURL(url), 1000);
}

// A table whose columns sort on a click of their header: columns are {key, label, fmt}.
function sortableTable(box, columns, rows, state, onRow) {
  box.replaceChildren();
  const t = el("table", "sortable");
  const head = el("tr");
  for (const c of columns) {
    const th = el("th", "", c.label + (state.key === c.key ? (state.desc ? " \u25be" : " \u25b4") : ""));
    th.dataset.key = c.key;
    th.addEventListener("click", () => {
      state.desc = state.key === c.key ? !state.desc : true;
      state.key = c.key;
      sortableTable(box, columns, rows, state, onRow);
    });
    head.append(th);
  }
  t.append(head);
  const col = columns.find((c) => c.key === state.key);
  const sorted = rows.slice();
  if (col) {
    const value = col.value || ((r) => r[col.key]);
    sorted.sort((a, b) => {
      const x = value(a), y = value(b);
      const c = x === y ? 0 : x === null || x === undefined ? 1 : y === null || y === undefined ? -1 : x < y ? -1 : 1;
      return state.desc ? -c : c;
    });
  }
  for (const r of sorted) {
    const tr = row(columns.map((c) => (c.fmt ? c.fmt(r) : String(r[c.key] ?? "\u2013"))));
    if (onRow) {
      tr.classList.add("clickable");
      tr.addEventListener("click", () => onRow(r));
    }
    tr.dataset.key = r.card || r.flop || "";
    t.append(tr);
  }
  box.append(t);
}

// -- charts (SVG) -------------------------------------------------------------

const SVG = "http://www.w3.org/2000/svg";

function svg(tag, attrs, text) {
  const e = document.createElementNS(SVG, tag);
  for (const [k, v] of Object.entries(attrs || {})) e.setAttribute(k, v);
  if (text !== undefined) e.textContent = text;
  return e;
}

// Points [x, y]; a log scale for y when asked (exploitability falls about geometrically).
function lineChart(box, points, opts) {
  box.replaceChildren();
  const W = 520, H = 220, L = 56, B = 28, T = 10, R = 10;
  const root = svg("svg", { viewBox: `0 0 ${W} ${H}`, width: W, height: H, class: "chart-svg" });
  const ys = points.map((p) => (opts.log ? Math.log10(Math.max(p[1], 1e-9)) : p[1]));
  const xs = points.map((p) => p[0]);
  if (!points.length) { box.append(root); return; }
  let y0 = Math.min(...ys), y1 = Math.max(...ys);
  if (y1 - y0 < 1e-9) { y0 -= 0.5; y1 += 0.5; }
  const x0 = Math.min(...xs), x1 = Math.max(...xs) > x0 ? Math.max(...xs) : x0 + 1;
  const X = (x) => L + ((x - x0) / (x1 - x0)) * (W - L - R);
  const Y = (y) => T + (1 - (y - y0) / (y1 - y0)) * (H - T - B);
  root.append(svg("line", { x1: L, y1: H - B, x2: W - R, y2: H - B, class: "axis" }));
  root.append(svg("line", { x1: L, y1: T, x2: L, y2: H - B, class: "axis" }));
  for (let i = 0; i <= 4; i++) {
    const y = y0 + ((y1 - y0) * i) / 4;
    const label = opts.log ? Number(Math.pow(10, y).toPrecision(2)) + (opts.unit || "") : y.toFixed(2);
    root.append(svg("text", { x: L - 4, y: Y(y) + 4, class: "tick", "text-anchor": "end" }, label));
  }
  root.append(svg("text", { x: W - R, y: H - 6, class: "tick", "text-anchor": "end" }, opts.xlabel + " " + num(x1, 1)));
  const d = points.map((p, i) => (i ? "L" : "M") + X(xs[i]).toFixed(1) + " " + Y(ys[i]).toFixed(1)).join(" ");
  root.append(svg("path", { d, class: "series" }));
  for (let i = 0; i < points.length; i++) root.append(svg("circle", { cx: X(xs[i]), cy: Y(ys[i]), r: 2.5, class: "dot" }));
  box.append(root);
}

// Bars [{label, value, color?}] with a zero line.
function barChart(box, bars, opts = {}) {
  box.replaceChildren();
  // As wide as its box (at most 22 px a bar); labels stand upright when the bars are narrow.
  const W = Math.max(300, Math.min(box.clientWidth || 520, 60 + bars.length * 22)), H = 210, L = 48, B = 40, T = 8;
  const root = svg("svg", { viewBox: `0 0 ${W} ${H}`, width: W, height: H, class: "chart-svg" });
  const values = bars.map((b) => b.value).filter((v) => v !== null && v !== undefined && isFinite(v));
  let lo = Math.min(0, ...values), hi = Math.max(0, ...values);
  if (hi - lo < 1e-12) hi = lo + 1;
  const Y = (v) => T + (1 - (v - lo) / (hi - lo)) * (H - T - B);
  const step = (W - L - 8) / Math.max(1, bars.length);
  root.append(svg("line", { x1: L, y1: Y(0), x2: W - 8, y2: Y(0), class: "axis" }));
  for (const v of [lo, hi]) {
    root.append(svg("text", { x: L - 4, y: Y(v) + 4, class: "tick", "text-anchor": "end" },
      opts.percent ? (100 * v).toFixed(0) + "%" : Number(v.toPrecision(3)).toString()));
  }
  bars.forEach((b, i) => {
    const x = L + i * step + 2;
    if (b.value !== null && b.value !== undefined && isFinite(b.value)) {
      const y = Math.min(Y(b.value), Y(0));
      const rect = svg("rect", { x, y, width: Math.max(2, step - 4), height: Math.max(1, Math.abs(Y(b.value) - Y(0))),
        class: "bar" });
      if (b.color) rect.style.fill = b.color;
      rect.append(svg("title", {}, `${b.label}: ${opts.percent ? pct(b.value) : num(b.value, 3)}`));
      root.append(rect);
    }
    const cx = x + step / 2 - 2;
    root.append(step >= 30
      ? svg("text", { x: cx, y: H - B + 14, class: "tick", "text-anchor": "middle" }, b.label)
      : svg("text", { x: cx + 3, y: H - B + 6, class: "tick", "text-anchor": "end", transform: `rotate(-90 ${cx + 3} ${H - B + 6})` }, b.label));
  });
  box.append(root);
}

// -- tabs and status ------------------------------------------------------------

function showTab(name) {
  App.tab = name;
  for (const s of document.querySelectorAll(".tab")) s.hidden = s.id !== "tab-" + name;
  for (const b of document.querySelectorAll("#tabs button")) b.classList.toggle("on", b.dataset.tab === name);
  document.body.dataset.tab = name;
  for (const f of App.listeners) f("tab", name);
}

function onChange(f) {
  App.listeners.push(f);
}

function stateText(st) {
  if (st.state === "solving") return "solving\u2026";
  if (st.state === "solved" && st.results) {
    const r = st.results;
    return `solved: ${r.iterations ?? "?"} iterations, exploitable for ${pct(r.exploitability_share, 3)} of the pot`;
  }
  return { empty: "no game yet", built: "tree built, not solved", building: "building\u2026", error: "error" }[st.state] || st.state;
}

// The status of the engine, shown and handed to the other parts; `poll` goes on by itself.
async function refresh() {
  const st = await api("/api/status");
  const first = App.status === null;
  App.status = st;
  $("game").textContent = st.name ? st.name + (st.pot ? "  \u00b7  pot " + st.pot : "") : "";
  $("status").textContent = stateText(st);
  document.body.dataset.state = st.state;
  document.body.dataset.solves = (st.history || []).length;  // says how many solves have ended
  if (st.state === "error") showError(st.message);
  renderSolve(st);
  const changed = st.generation !== App.generation;
  App.generation = st.generation;
  for (const f of App.listeners) f(first ? "first" : changed ? "changed" : "status", st);
  return st;
}

async function poll() {
  let st;
  try {
    st = await refresh();
  } catch (e) {
    showError(e.status === 403 ? e.message : "the app's server doesn't answer: " + e.message);
    setTimeout(poll, 3000);
    return;
  }
  setTimeout(poll, st.state === "solving" || st.state === "building" ? 400 : 1500);
}

function refreshSoon() {
  clearTimeout(App.quickPoll);
  App.quickPoll = setTimeout(() => refresh().catch(() => {}), 50);
}

// -- solving --------------------------------------------------------------------

function solveSettings(fresh) {
  const seconds = $("seconds").value.trim();
  return {
    threads: Number($("threads").value || 0),
    accuracy: Number($("accuracy").value || 0) / 100,
    seconds: seconds === "" ? null : Number(seconds),
    compression: $("compression").value,
    fresh,
  };
}

async function startSolve(fresh) {
  setMsg($("solve-msg"), "");
  try {
    await api("/api/solve", solveSettings(fresh));
    showError("");
  } catch (e) {
    setMsg($("solve-msg"), e.message);
    return false;
  }
  refreshSoon();
  return true;
}

function renderSolve(st) {
  const solving = st.state === "solving";
  $("solve").disabled = solving || !["built", "solved", "error"].includes(st.state);
  $("go-on").disabled = solving || st.state !== "solved";
  $("stop").disabled = !solving;
  if (st.settings && !App.settingsShown) {
    App.settingsShown = true;
    $("threads").value = st.settings.threads ?? 0;
    $("accuracy").value = +(100 * (st.settings.accuracy ?? 0.005)).toFixed(4);
    $("seconds").value = st.settings.seconds ?? "";
    $("compression").value = st.settings.compression || "auto";
  }
  const reports = st.reports || [];
  const last = reports[reports.length - 1];
  const pot = st.pot || 1;
  $("progress-text").textContent = last
    ? `iteration ${last.iteration ?? "?"}, ${num(last.seconds, 1)} s, exploitable for ${num(last.exploitability, 3)} chips ` +
      `(${num((100 * last.exploitability) / pot, 3)}% of the pot)` + (solving ? "" : " \u2014 stopped")
    : solving ? "building the tree and starting\u2026" : "";
  lineChart($("chart"), reports.map((r) => [r.seconds, (100 * r.exploitability) / pot]),
    { log: true, unit: "%", xlabel: "seconds" });
  const res = $("results");
  res.replaceChildren();
  if (st.results) {
    const r = st.results;
    const t = el("table");
    t.append(row(["", "OOP", "IP"], true));
    t.append(row(["EV (chips)", num(r.ev_oop, 3), num(r.ev_ip, 3)]));
    t.append(row(["best response", num(r.mes_oop, 3), num(r.mes_ip, 3)]));
    res.append(t);
    res.append(el("div", "muted", `exploitable for ${num(r.exploitability, 4)} chips (${pct(r.exploitability_share, 3)} of the pot), ` +
      `${r.iterations ?? "?"} iterations` + (r.stop_reason ? `, ${r.stop_reason}` : "")));
  }
  const hist = $("history");
  hist.replaceChildren();
  if ((st.history || []).length) {
    const t = el("table");
    t.append(row(["#", "EV OOP", "EV IP", "exploitable", "locked nodes"], true));
    st.history.forEach((h, i) => {
      t.append(row([String(i + 1) + (h.file ? " " + h.file : ""), num(h.results.ev_oop, 3), num(h.results.ev_ip, 3),
        pct(h.results.exploitability_share, 3), (h.locks || []).join(" ") || "\u2013"]));
    });
    hist.append(t);
  }
}

// -- files ----------------------------------------------------------------------

async function loadFiles() {
  let data;
  try {
    data = await api("/api/files");
  } catch (e) {
    showError(e.message);
    return;
  }
  App.files = data.folders;
  const pick = $("save-folder");
  const was = pick.value;
  pick.replaceChildren(...data.folders.map((f) => {
    const o = el("option", "", f.path);
    o.value = f.folder;
    return o;
  }));
  if (was) pick.value = was;
  const list = $("file-list");
  list.replaceChildren();
  for (const f of data.folders) {
    list.append(el("h3", "", f.path));
    if (!f.trees.length) list.append(el("div", "muted", "no tree files"));
    for (const t of f.trees) {
      const b = el("button", "file", `${t.name}  (${(t.size / 1048576).toFixed(1)} MB)`);
      b.dataset.name = t.name;
      b.addEventListener("click", () => openTree(f.folder, t.name));
      list.append(b);
    }
    for (const s of f.studies) {
      const b = el("button", "file study", "study: " + s);
      b.addEventListener("click", () => { showTab("study"); pickStudy(f.folder, s); });
      list.append(b);
    }
  }
  for (const f of App.listeners) f("files", data.folders);
}

async function openTree(folder, name) {
  setMsg($("save-msg"), "opening " + name + "\u2026");
  try {
    await api("/api/open", { folder, name });
    setMsg($("save-msg"), "opened " + name, true);
    refreshSoon();
    location.hash = "#r:0";
    showTab("explore");
  } catch (e) {
    setMsg($("save-msg"), e.message);
  }
}

async function saveTree() {
  const name = $("save-name").value.trim();
  try {
    const got = await api("/api/save", { folder: Number($("save-folder").value || 0), name });
    setMsg($("save-msg"), "saved " + got.name, true);
    refreshSoon();
    loadFiles();
  } catch (e) {
    setMsg($("save-msg"), e.message);
  }
}

// -- start ----------------------------------------------------------------------

async function start() {
  if (!App.token) {
    showError("This page needs the token the app printed: open the whole address it gave (\u2026/?token=\u2026).");
    return;
  }
  try {
    App.meta = await api("/api/meta");
  } catch (e) {
    showError(e.message);
    return;
  }
  const levels = $("compression");
  levels.append(el("option", "", "auto"));
  App.meta.levels.forEach((name, i) => {
    const o = el("option", "", `${i} ${name}`);
    o.value = name;
    levels.append(o);
  });
  for (const b of document.querySelectorAll("#tabs button")) b.addEventListener("click", () => showTab(b.dataset.tab));
  $("solve").addEventListener("click", () => startSolve(true));
  $("go-on").addEventListener("click", () => startSolve(false));
  $("stop").addEventListener("click", () => api("/api/stop", {}).catch((e) => setMsg($("solve-msg"), e.message)));
  $("save").addEventListener("click", saveTree);
  onChange((what) => { if (what === "tab" && App.tab === "files") loadFiles(); });
  for (const f of App.listeners) f("meta", App.meta);
  showTab(location.hash.length > 1 ? "explore" : "setup");
  loadFiles();
  poll();
}

window.addEventListener("DOMContentLoaded", start);
