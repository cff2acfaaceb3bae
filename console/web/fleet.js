// The fleet page: one row per agent the hub watches, kept up to date by the hub's fleet
// stream (one stream for the whole fleet, however many agents).
"use strict";

(() => {
  const { el, meter, pct, count, bytes, byteRate, age, fillClass } = vorn;

  // The last minutes of processor utilisation as a line, 0 to 100 %.
  function sparkline(values) {
    const ns = "http://www.w3.org/2000/svg";
    const svg = document.createElementNS(ns, "svg");
    svg.setAttribute("viewBox", "0 0 100 20");
    svg.setAttribute("preserveAspectRatio", "none");
    svg.setAttribute("class", "spark");
    svg.dataset.points = values.length;
    if (values.length > 1) {
      const xy = values.map((v, i) => `${(100 * i / (values.length - 1)).toFixed(2)},${(19 - 18 * Math.min(100, Math.max(0, v)) / 100).toFixed(2)}`);
      const area = document.createElementNS(ns, "polygon");
      area.setAttribute("points", `0,20 ${xy.join(" ")} 100,20`);
      const line = document.createElementNS(ns, "polyline");
      line.setAttribute("points", xy.join(" "));
      svg.append(area, line);
    }
    return svg;
  }

  function cpuCell(a, f) {
    return el("div", { class: "cpu-cell" },
      meter([["user", f.user], ["system", f.system], ["wait", f.wait]], pct(f.cpu)), sparkline(a.cpu_recent));
  }

  function memoryCell(f) {
    const used = f.memory_used_mb * 1048576;
    const total = f.memory_total_mb * 1048576;
    return el("div", { class: "cpu-cell" }, meter([[fillClass(f.memory_util), f.memory_util]], pct(f.memory_util)),
              el("span", { class: "muted num" }, bytes(used) + " / " + bytes(total)));
  }

  function statusCell(a) {
    const text = a.up ? "up" : a.samples ? "down" : "connecting";
    const td = el("td", { class: "status" }, el("span", { class: "pill " + (a.up ? "up" : a.samples ? "down" : "wait") }, text));
    if (!a.up && a.last_error) td.title = a.last_error;
    return td;
  }

  function row(a) {
    const f = a.figures;
    const tr = el("tr", {
      class: a.up ? "up" : "down",
      dataset: { agent: a.name, up: String(a.up), firing: String(a.firing) },
    });
    const link = el("a", { href: "agent.html?agent=" + encodeURIComponent(a.name) }, a.name);
    tr.append(el("td", { class: "agent" }, link, el("span", { class: "faint" }, a.instance)));
    tr.append(statusCell(a));
    if (f) {
      Object.assign(tr.dataset, {
        cpu: f.cpu, processors: f.processors, memTotalMb: f.memory_total_mb, processes: f.processes,
      });
      tr.append(el("td", {}, cpuCell(a, f)), el("td", {}, memoryCell(f)),
        el("td", { class: "num" }, count(f.disk_ops) + "/s"),
        el("td", { class: "num" }, byteRate(f.disk_bytes)),
        el("td", { class: "num" }, byteRate(f.net_in)),
        el("td", { class: "num" }, byteRate(f.net_out)),
        el("td", { class: "num" }, String(f.processes)));
    } else {
      tr.append(el("td", { class: "faint", colspan: 7 }, a.last_error || "no measurement yet"));
    }
    const badge = el("span", { class: "badge" + (a.firing ? " hot" : "") }, String(a.firing));
    badge.title = a.firing + " of " + a.rules + " rules firing";
    tr.append(el("td", { class: "num" }, badge),
              el("td", { class: "num muted" }, age(a.last_sample_ms)));
    return tr;
  }

  function counts(agents) {
    const up = agents.filter(a => a.up).length;
    const firing = agents.reduce((n, a) => n + a.firing, 0);
    const box = document.getElementById("counts");
    box.replaceChildren(
      el("span", {}, el("strong", {}, String(agents.length)), "agents"),
      el("span", {}, el("strong", {}, String(up)), "up"),
      el("span", {}, el("strong", { style: firing ? "color:var(--bad)" : "" }, String(firing)), "rules firing"));
  }

  function show(fleet) {
    document.querySelector("#fleet tbody").replaceChildren(...fleet.agents.map(row));
    counts(fleet.agents);
    document.getElementById("notice").textContent = "";
    document.getElementById("updated").textContent = "updated " + vorn.clock(Date.now());
    document.body.dataset.state = "live";
  }

  // The browser reconnects a lost stream by itself; the hub sends the whole fleet first.
  const source = new EventSource("api/fleet/stream");
  source.addEventListener("fleet", e => show(JSON.parse(e.data)));
  source.onerror = () => {
    document.getElementById("notice").textContent =
      "The hub's live stream was lost; the browser is reconnecting.";
    document.body.dataset.state = "error";
  };
})();
