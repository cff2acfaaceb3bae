// The agent page's tables: processes (sortable, filterable), file systems (as df shows them),
// the rules in force and the alerts raised.
"use strict";

const vornTables = (() => {
  const { el, pct, bytes, byteRate, rate, clock, meter, fillClass } = vorn;

  // Columns of the process table: the key the hub's column list gives, and how to show it.
  const processColumns = [
    { key: "pid", label: "PID", num: true, fmt: String },
    { key: "name", label: "Name" },
    { key: "User Name", label: "User" },
    { key: "% CPU Utilization", label: "CPU", num: true, fmt: pct, desc: true },
    { key: "% user CPU", label: "User", num: true, fmt: pct, desc: true },
    { key: "% sys CPU", label: "Sys", num: true, fmt: pct, desc: true },
    { key: "Rss (Kb)", label: "Resident", num: true, fmt: v => bytes(v * 1024), desc: true },
    { key: "IO Chars", label: "I/O", num: true, fmt: byteRate, desc: true },
    { key: "System calls", label: "Syscalls", num: true, fmt: rate, desc: true },
    { key: "Major Faults", label: "Maj flt", num: true, fmt: rate, desc: true },
    { key: "ParentPID", label: "PPID", num: true, fmt: String },
  ];
  const kMaxRows = 300;

  class ProcessTable {
    constructor(root, filter) {
      this.root = root;
      this.sort = { key: "% CPU Utilization", desc: true };
      this.filter = filter || "";
      this.rows = [];
      this.input = root.querySelector("input[type=search]");
      this.input.value = this.filter;
      this.input.addEventListener("input", () => { this.filter = this.input.value; this.render(); });
      // "/" jumps to the filter, as in a terminal's process viewer.
      document.addEventListener("keydown", e => {
        if (e.key === "/" && document.activeElement !== this.input) { e.preventDefault(); this.input.focus(); }
      });
      this.head();
    }

    head() {
      const tr = this.root.querySelector("thead tr");
      tr.replaceChildren(...processColumns.map(c => {
        const th = el("th", { class: "sortable" + (c.num ? " num" : ""), dataset: { key: c.key } }, c.label);
        th.addEventListener("click", () => {
          this.sort = this.sort.key === c.key ? { key: c.key, desc: !this.sort.desc }
                                              : { key: c.key, desc: !!c.desc };
          this.render();
        });
        return th;
      }));
    }

    // Rows from the compact measurement: one array per process, named by its column list.
    set(sample) {
      const at = {};
      sample.process_columns.forEach((name, i) => { at[name] = i; });
      this.rows = sample.processes.map(cells => {
        const r = {};
        for (const c of processColumns) {
          const v = cells[at[c.key]];
          r[c.key] = c.num && v != null && c.key === "ParentPID" ? Number(v) : v;
        }
        return r;
      });
      this.render();
    }

    shown() {
      const f = this.filter.trim().toLowerCase();
      const rows = f ? this.rows.filter(r => String(r.pid).includes(f) ||
        (r.name || "").toLowerCase().includes(f) || (r["User Name"] || "").toLowerCase().includes(f))
        : this.rows.slice();
      const { key, desc } = this.sort;
      const col = processColumns.find(c => c.key === key);
      const value = r => r[key] ?? (col.num ? -Infinity : "");
      rows.sort((a, b) => {
        const x = value(a), y = value(b);
        const c = col.num ? x - y : String(x).localeCompare(String(y));
        return (desc ? -c : c) || a.pid - b.pid;
      });
      return rows;
    }

    render() {
      const rows = this.shown();
      for (const th of this.root.querySelectorAll("th")) {
        const on = th.dataset.key === this.sort.key;
        th.classList.toggle("sorted", on);
        th.classList.toggle("asc", on && !this.sort.desc);
      }
      const body = document.createDocumentFragment();
      for (const r of rows.slice(0, kMaxRows)) {
        const tr = el("tr", { dataset: { pid: r.pid, name: r.name ?? "" } });
        for (const c of processColumns) {
          const v = r[c.key];
          if (c.key === "name" && v == null) {
            tr.append(el("td", { class: "name pending", title: "named at the agent's next header pass" }, "(new process)"));
          } else {
            tr.append(el("td", { class: c.num ? "num" : c.key === "name" ? "name" : "" },
                         v == null ? "–" : c.fmt ? c.fmt(v) : String(v)));
          }
        }
        body.append(tr);
      }
      this.root.querySelector("tbody").replaceChildren(body);
      const note = this.root.querySelector(".count");
      note.textContent = (rows.length > kMaxRows ? `top ${kMaxRows} of ${rows.length}` : rows.length) +
        (this.filter.trim() ? " matching" : "") + ` · ${this.rows.length} processes`;
      this.root.dataset.shown = rows.length;
      this.root.dataset.filter = this.filter;
    }
  }

  // File systems as df shows them: used / (used + available); pseudo ones hidden unless asked.
  function fileSystems(sample, all) {
    const mounts = new Map();
    for (const [path, v] of Object.entries(sample.values)) {
      const m = /^FileSystem->(.*)->(% Space Used|Available|Used|Total)$/.exec(path);
      if (!m) continue;
      if (!mounts.has(m[1])) mounts.set(m[1], { mount: m[1] });
      mounts.get(m[1])[m[2]] = v;
    }
    const pseudo = f => !f.Total || /^\/(proc|sys|dev|run)(\/|$)/.test(f.mount);
    return [...mounts.values()].filter(f => all || !pseudo(f)).map(f => {
      const used = f.Used || 0, avail = f.Available || 0;
      return { ...f, fill: used + avail > 0 ? 100 * used / (used + avail) : f["% Space Used"] || 0 };
    }).sort((a, b) => b.fill - a.fill);
  }

  function renderFileSystems(table, sample, all) {
    const rows = fileSystems(sample, all).map(f => el("tr", { dataset: { mount: f.mount, fill: f.fill.toFixed(1) } },
      el("td", { class: "name" }, f.mount),
      el("td", { class: "num" }, bytes(f.Total * 1024)),
      el("td", { class: "num" }, bytes(f.Used * 1024)),
      el("td", { class: "num" }, bytes(f.Available * 1024)),
      el("td", {}, meter([[fillClass(f.fill), f.fill]], pct(f.fill)))));
    table.querySelector("tbody").replaceChildren(...rows);
    if (!rows.length) table.querySelector("tbody").append(el("tr", {}, el("td", { class: "empty", colspan: 5 }, "no file systems")));
  }

  function renderRules(table, reply) {
    const rows = reply.rules.map(r => el("tr", { dataset: { rule: r.name, firing: String(r.firing) } },
      el("td", {}, r.name),
      el("td", { class: "name", title: r.path }, r.path),
      el("td", { class: "num" }, r.condition + " " + vorn.count(r.limit)),
      el("td", { class: "num" }, r.hours || r.minutes ? `${r.hours}h${String(r.minutes).padStart(2, "0")}` : "at once"),
      el("td", { class: "state " + (r.firing ? "firing" : "quiet") }, r.firing ? "firing" : "quiet")));
    if (!rows.length) rows.push(el("tr", {}, el("td", { class: "empty", colspan: 5 }, "no rules: give the hub --rules FILE")));
    table.querySelector("tbody").replaceChildren(...rows);
  }

  // An alert as the hub recorded it: {received_ms, raised, alert: {name, path, ...}}.
  function alertItem(record) {
    const a = record.alert;
    const li = el("li", { class: record.raised ? "raised" : "cleared",
                          dataset: { rule: a.name, raised: String(record.raised) } },
      el("span", { class: "when" }, clock(record.received_ms)),
      el("span", { class: "kind" }, record.raised ? "RAISED" : "cleared"),
      el("span", { class: "what" }, el("strong", {}, a.name), " ",
         el("span", { class: "muted" }, `${a.path} ${a.condition} ${vorn.count(a.limit)}: avg ${vorn.count(a.average)}` +
            (a.description ? " · " + a.description : ""))));
    li.title = `min ${a.min}, max ${a.max}, raised ${a.raised}`;
    return li;
  }

  return { ProcessTable, renderFileSystems, renderRules, alertItem };
})();
