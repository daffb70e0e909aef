// Study: the flops of a study folder as a sortable table, filtered by texture, with a chart
// of any column by texture class; the action frequencies at a line the user picks, read from
// the flops' kept trees one flop at a time; a click on a flop with a tree opens it.
"use strict";

const Study = { folder: null, name: null, data: null, lines: {}, sort: { key: "weight", desc: true }, filters: {} };

function studyChoices(folders) {
  const pick = $("study-pick");
  const was = pick.value;
  const options = [el("option", "", "")];
  for (const f of folders) {
    for (const s of f.studies) {
      const o = el("option", "", `${s}  (${f.path})`);
      o.value = JSON.stringify([f.folder, s]);
      options.push(o);
    }
  }
  pick.replaceChildren(...options);
  if (was) pick.value = was;
}

async function pickStudy(folder, name) {
  $("study-pick").value = JSON.stringify([folder, name]);
  Study.folder = folder;
  Study.name = name;
  Study.lines = {};
  Study.filters = {};
  try {
    Study.data = await api(`/api/study?folder=${folder}&name=${encodeURIComponent(name)}`);
  } catch (e) {
    setMsg($("study-msg"), e.message);
    return;
  }
  const kept = Study.data.flops.filter((f) => f.tree).length;
  setMsg($("study-msg"), `${Study.data.flops.length} flops, ${kept} with their tree` +
    (Study.data.skipped.length ? `; left out: ${Study.data.skipped.join("; ")}` : ""));
  renderFilters();
  renderStudy();
}

function renderFilters() {
  const box = $("study-filters");
  box.replaceChildren();
  for (const t of Study.data.textures) {
    const pick = el("select");
    pick.dataset.texture = t;
    const present = Study.data.classes[t].filter((c) => Study.data.flops.some((f) => f[t] === c));
    pick.replaceChildren(el("option", "", "all"), ...present.map((c) => el("option", "", c)));
    pick.addEventListener("change", () => {
      Study.filters[t] = pick.value === "all" ? null : pick.value;
      renderStudy();
    });
    const label = el("label", "", t.replace("_", " ") + " ");
    label.append(pick);
    box.append(label);
  }
  const metric = $("study-metric");
  const keys = studyColumns().filter((c) => c.number);
  metric.replaceChildren(...keys.map((c) => { const o = el("option", "", c.label); o.value = c.key; return o; }));
  metric.value = keys.some((c) => c.key === "ev_oop") ? "ev_oop" : keys[0].key;
  const group = $("study-group");
  group.replaceChildren(...Study.data.textures.map((t) => el("option", "", t)));
}

function studyColumns() {
  const d = Study.data;
  const cols = [
    { key: "flop", label: "flop", fmt: (r) => { const s = el("span"); for (let i = 0; i < 6; i += 2) s.append(cardNode(r.flop.slice(i, i + 2))); if (r.tree) s.append(el("span", "muted", " tree")); return s; } },
    { key: "weight", label: "weight", number: true },
    ...d.textures.map((t) => ({ key: t, label: t.replace("_", " ") })),
    { key: "ev_oop", label: "EV OOP", number: true, fmt: (r) => num(r.ev_oop) },
    { key: "ev_ip", label: "EV IP", number: true, fmt: (r) => num(r.ev_ip) },
    { key: "equity_oop", label: "equity OOP", number: true, fmt: (r) => pct(r.equity_oop) },
    { key: "equity_ip", label: "equity IP", number: true, fmt: (r) => pct(r.equity_ip) },
    ...d.actions.map((a) => ({ key: "freq_" + a, label: "r:0 " + a, number: true, percent: true, fmt: (r) => pct(r["freq_" + a]) })),
  ];
  const path = Study.linePath;
  if (path && path !== "r:0") {
    cols.push({ key: "line_freq", label: path + " reached", number: true, percent: true,
      value: (r) => lineOf(r)?.line_freq ?? null, fmt: (r) => (lineOf(r) ? pct(lineOf(r).line_freq, 2) : r.tree ? "\u2026" : "no tree") });
    for (const a of lineActions()) {
      cols.push({ key: "line_" + a, label: path + " " + a, number: true, percent: true,
        value: (r) => lineOf(r)?.actions[a] ?? null, fmt: (r) => pct(lineOf(r)?.actions[a]) });
    }
  }
  return cols;
}

function lineOf(r) {
  return Study.lines[Study.linePath] && Study.lines[Study.linePath][r.flop];
}

function lineActions() {
  const seen = [];
  for (const got of Object.values(Study.lines[Study.linePath] || {})) {
    for (const a of Object.keys(got.actions)) if (!seen.includes(a)) seen.push(a);
  }
  return seen;
}

function shownFlops() {
  return Study.data.flops.filter((f) => Object.entries(Study.filters).every(([t, c]) => !c || f[t] === c));
}

function renderStudy() {
  if (!Study.data) return;
  const flops = shownFlops();
  sortableTable($("study-table"), studyColumns(), flops, Study.sort, (r) => {
    if (!r.tree) { setMsg($("study-msg"), `${r.flop}: the study kept no tree of this flop`); return; }
    openTree(Study.folder, `${Study.name === "." ? "" : Study.name + "/"}${r.tree}`);
  });
  // The chart: the chosen column's mean by class of the chosen texture, weighted by the flops' weights.
  const key = $("study-metric").value;
  const col = studyColumns().find((c) => c.key === key);
  const texture = $("study-group").value || Study.data.textures[0];
  if (!col) return;
  const value = col.value || ((r) => r[key]);
  const bars = [];
  for (const cls of Study.data.classes[texture]) {
    const group = flops.filter((f) => f[texture] === cls && value(f) !== null && value(f) !== undefined);
    if (!group.length) continue;
    const w = group.reduce((s, f) => s + f.weight, 0);
    bars.push({ label: cls, value: group.reduce((s, f) => s + f.weight * value(f), 0) / w });
  }
  barChart($("study-chart"), bars, { percent: !!col.percent || key.startsWith("equity") });
}

async function readLine() {
  const path = $("study-path").value.trim();
  if (!isPath(path)) { setMsg($("study-msg"), "line: a node path such as r:0:c or r:0:b50"); return; }
  Study.linePath = path;
  const got = Study.lines[path] || (Study.lines[path] = {});
  const todo = Study.data.flops.filter((f) => f.tree && !got[f.flop]);
  let done = 0;
  for (const f of todo) {
    try {
      got[f.flop] = await api(`/api/study/line?folder=${Study.folder}&name=${encodeURIComponent(Study.name)}` +
        `&flop=${f.flop}&path=${encodeURIComponent(path)}`);
    } catch (e) {
      setMsg($("study-msg"), `${f.flop}: ${e.message}`);
      return;
    }
    done++;
    setMsg($("study-msg"), `line ${path}: ${done} of ${todo.length} flops read`);
    if (done % 5 === 0 || done === todo.length) renderStudy();
  }
  renderStudy();
  document.body.dataset.studyLine = path;
}

function studyEvents(what, data) {
  if (what === "meta") {
    $("study-pick").addEventListener("change", () => {
      if ($("study-pick").value) pickStudy(...JSON.parse($("study-pick").value));
    });
    $("study-line").addEventListener("click", readLine);
    $("study-metric").addEventListener("change", renderStudy);
    $("study-group").addEventListener("change", renderStudy);
  } else if (what === "files") {
    studyChoices(data);
  } else if (what === "tab" && App.tab === "study" && App.files) {
    studyChoices(App.files);
  }
}

onChange(studyEvents);
