// The agent page's charts: a store of time series by metric path (filled from the hub's
// history, then from the live stream) and the charts drawn from it with the chart library.
// Each chart writes how many points it drew into its canvas's data-points, so what a person
// sees can be checked.
"use strict";

class SeriesStore {
  constructor(windowMs) {
    this.windowMs = windowMs;
    this.series = new Map();  // path -> [{x: unix ms, y}], oldest first
    this.interval = 2;
  }

  addHistory(list) {
    for (const s of list) this.series.set(s.path, s.points.map(([x, y]) => ({ x, y })));
  }

  // One measurement of the live stream; the first may already be the history's last.
  addSample(sample) {
    const t = sample.unix_ms;
    this.interval = Math.max(1, sample.interval || this.interval);
    for (const [path, y] of Object.entries(sample.values)) {
      let points = this.series.get(path);
      if (!points) this.series.set(path, points = []);
      if (points.length && points[points.length - 1].x >= t) continue;
      points.push({ x: t, y });
      while (points.length && points[0].x < t - this.windowMs) points.shift();
    }
  }

  points(path) { return this.series.get(path) || []; }

  // Paths matching `re`, with the first capture of each: [[capture, path], ...] in order.
  match(re) {
    const out = [];
    for (const path of this.series.keys()) {
      const m = re.exec(path);
      if (m) out.push([m[1], path]);
    }
    return out.sort((a, b) => a[0].localeCompare(b[0], undefined, { numeric: true }));
  }

  // The agent counts disk work per scan interval: divided by the time between two
  // measurements (bounded, as a stalled delivery must not make absurd rates) it is per second.
  perSecond(path) {
    const points = this.points(path);
    const interval = this.interval;
    return points.map((p, i) => {
      const dt = i ? (p.x - points[i - 1].x) / 1000 : interval;
      return { x: p.x, y: p.y / Math.min(Math.max(dt, 0.1), interval * 10) };
    });
  }

  last(path) {
    const p = this.points(path);
    return p.length ? p[p.length - 1].y : null;
  }
}

const vornCharts = (() => {
  const palette = ["#4f9cf0", "#f07b6c", "#e8b949", "#3fb97a", "#b07cf0", "#4fd1c5",
                   "#f08bc2", "#9aa5b1", "#c9d46a", "#f0a35c"];
  const css = name => getComputedStyle(document.documentElement).getPropertyValue(name).trim();
  const formats = { pct: vorn.pct, rate: vorn.rate, bytes: vorn.bytes, byteRate: vorn.byteRate,
                    count: vorn.count };

  if (window.Chart) {
    Chart.defaults.color = "#8895a4";
    Chart.defaults.borderColor = "rgba(136, 149, 164, 0.12)";
    Chart.defaults.font.family = "system-ui, 'DejaVu Sans', sans-serif";
    Chart.defaults.font.size = 11;
    // What was drawn, for anyone (a test, a person with the inspector) to read off the page.
    Chart.register({
      id: "vornDrawn",
      afterDraw(chart) {
        const n = chart.data.datasets.reduce((sum, d) => sum + (d.hidden ? 0 : d.data.length), 0);
        chart.canvas.dataset.points = n;
        chart.canvas.dataset.draws = Number(chart.canvas.dataset.draws || 0) + 1;
      },
    });
  }

  // Time ticks on round seconds or minutes, about five across whatever span is shown.
  const steps = [1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600].map(s => s * 1000);
  function timeTicks(axis) {
    const span = axis.max - axis.min;
    if (!(span > 0)) return;
    const step = steps.find(s => span / s <= 5) || steps[steps.length - 1];
    const ticks = [];
    for (let t = Math.ceil(axis.min / step) * step; t <= axis.max; t += step) ticks.push({ value: t });
    axis.ticks = ticks;
  }
  const timeTick = value => vorn.clock(value);

  // Axis ticks: whole percents, other units as the tooltips show them.
  const tickFormat = unit => unit === "pct" ? v => v.toFixed(0) + "%" : formats[unit] || vorn.count;

  function options(def, small) {
    const fmt = formats[def.unit] || vorn.count;
    return {
      animation: false,
      responsive: true,
      maintainAspectRatio: false,
      interaction: { mode: "index", intersect: false },
      elements: { point: { radius: 0, hitRadius: 6 }, line: { borderWidth: 1.5, tension: 0 } },
      plugins: {
        legend: { display: false },  // drawn in the panel's heading instead, where it costs no height
        tooltip: { callbacks: { title: items => items.length ? vorn.clock(items[0].parsed.x) : "",
                                label: item => item.dataset.label + ": " + fmt(item.parsed.y) } },
      },
      scales: {
        x: { type: "linear", display: !small, grid: { display: false }, afterBuildTicks: timeTicks,
             ticks: { maxRotation: 0, autoSkip: false, callback: timeTick } },
        y: { stacked: !!def.stacked, beginAtZero: true, max: def.max,
             ticks: { maxTicksLimit: small ? 3 : 5, callback: tickFormat(def.unit) } },
      },
    };
  }

  function datasetStyle(line, i) {
    const color = line.color || palette[i % palette.length];
    return { label: line.label, data: line.data, borderColor: color,
             backgroundColor: line.fill ? color + "55" : color,
             fill: line.fill ? (i === 0 ? "origin" : "-1") : false };
  }

  // One chart over the store; `def.lines(store)` gives its lines as {label, data, color, fill}.
  class StoreChart {
    constructor(canvas, def, store, small) {
      this.def = def;
      this.store = store;
      this.canvas = canvas;
      canvas.dataset.chart = def.id;
      canvas.dataset.points = 0;
      this.chart = window.Chart
        ? new Chart(canvas, { type: "line", data: { datasets: [] }, options: options(def, small) })
        : null;
    }

    // Redraws from the store; returns the datasets drawn, for a legend.
    update() {
      const lines = this.def.lines(this.store);
      if (!this.chart) return lines.map(datasetStyle);
      const datasets = this.chart.data.datasets;
      lines.forEach((line, i) => {
        if (datasets[i] && datasets[i].label === line.label) datasets[i].data = line.data;
        else datasets[i] = datasetStyle(line, i);
      });
      datasets.length = lines.length;
      // The time axis spans what is there, not the next round tick.
      const xs = datasets.flatMap(d => d.data.length ? [d.data[0].x, d.data[d.data.length - 1].x] : []);
      Object.assign(this.chart.options.scales.x, xs.length ? { min: Math.min(...xs), max: Math.max(...xs) }
                                                         : { min: undefined, max: undefined });
      this.chart.update("none");
      return datasets;
    }
  }

  function modeLines(store, prefix, sep) {
    return [["User", css("--user")], ["System", css("--system")], ["Wait", css("--wait")]]
      .map(([mode, color]) => ({ label: mode.toLowerCase(), color, fill: true,
                                 data: store.points(prefix + sep + mode) }));
  }

  const wholeDisks = store => {
    const names = store.match(/^Disk->(.+)->Total Operations$/).map(([name]) => name);
    return names.filter(n => !vorn.isPartition(n, names));
  };

  // The charts of the agent page, in the order they are laid out.
  const layout = [
    { id: "cpu", title: "CPU by mode", unit: "pct", stacked: true, max: 100,
      lines: s => modeLines(s, "Cpu-> Mode Averages->", ""),
      now: s => vorn.pct(s.last("Cpu->Average Utilization")) },
    { id: "memory", title: "Memory", unit: "bytes", stacked: true,
      lines: s => [
        { label: "used", fill: true, color: css("--user"),
          data: s.points("Memory-> Allocation(MB)-> Used").map(p => ({ x: p.x, y: p.y * 1048576 })) },
        { label: "available", fill: true, color: "#5d6a79",
          data: s.points("Memory-> Allocation(MB)-> Free").map(p => ({ x: p.x, y: p.y * 1048576 })) },
      ],
      now: s => vorn.pct(s.last("Memory-> % Memory Utilization")) },
    { id: "paging", title: "Paging", unit: "rate",
      lines: s => [
        { label: "faults", data: s.points("Memory-> Paging by Type-> Total") },
        { label: "major", data: s.points("Memory-> Paging by Type-> Major") },
        { label: "swap I/O", data: s.points("Memory-> Paging IO Rate") },
      ] },
    { id: "disk-ops", title: "Disk operations", unit: "rate",
      lines: s => wholeDisks(s).map(d => ({ label: d, data: s.perSecond("Disk->" + d + "->Total Operations") })) },
    { id: "disk-bytes", title: "Disk throughput", unit: "byteRate",
      lines: s => wholeDisks(s).map(d => ({ label: d, data: s.perSecond("Disk->" + d + "->Total Transfers") })) },
    { id: "net-bytes", title: "Network bytes", unit: "byteRate",
      lines: s => [
        { label: "in", color: "#3fb97a", fill: true, data: s.points("Network->TCP->Data Rate->Received") },
        { label: "out", color: "#b07cf0", data: s.points("Network->TCP->Data Rate->Sent") },
      ] },
    { id: "net-packets", title: "Packets", unit: "rate",
      lines: s => [
        { label: "TCP in", data: s.points("Network->TCP->Packet Rate->Received") },
        { label: "TCP out", data: s.points("Network->TCP->Packet Rate->Sent") },
        { label: "UDP in", data: s.points("Network->UDP->Packet Rate->Received") },
        { label: "UDP out", data: s.points("Network->UDP->Packet Rate->Sent") },
      ] },
    { id: "tcp", title: "TCP connections", unit: "count",
      lines: s => [
        { label: "established", data: s.points("Network->TCP->Connection Establish Rate->Number of Connections") },
        { label: "opened/s", data: s.points("Network->TCP->Connections Opened->Active")
            .map((p, i) => ({ x: p.x, y: p.y + (s.points("Network->TCP->Connections Opened->Passive")[i] || { y: 0 }).y })) },
        { label: "retrans/s", data: s.points("Network->TCP->Sent Packets Breakdown->Retrans") },
      ] },
  ];

  // The heading's legend: a swatch and a name per line, rebuilt only when the lines change.
  function legend(box, datasets) {
    const key = datasets.map(d => d.label).join("\n");
    if (box.dataset.key === key) return;
    box.dataset.key = key;
    box.replaceChildren(...datasets.map(d => vorn.el("span", {},
      vorn.el("i", { style: "background:" + d.borderColor }), d.label)));
  }

  // Builds every chart panel into `grid`; returns the charts to update.
  function build(grid, store) {
    return layout.map(def => {
      const now = vorn.el("span", { class: "now" });
      const keys = vorn.el("span", { class: "keys" });
      const canvas = vorn.el("canvas");
      grid.append(vorn.el("section", { class: "panel" },
        vorn.el("h2", {}, def.title, keys, now), vorn.el("div", { class: "chart" }, canvas)));
      const chart = new StoreChart(canvas, def, store, false);
      return {
        update() {
          legend(keys, chart.update());
          if (def.now) now.textContent = def.now(store);
        },
      };
    });
  }

  // One small chart per processor, by mode; processors are found in the store's paths.
  class Processors {
    constructor(box, store) { this.box = box; this.store = store; this.cells = new Map(); }
    update() {
      for (const [n] of this.store.match(/^Cpu-> (\d+)->Total$/)) {
        if (!this.cells.has(n)) this.cells.set(n, this.cell(n));
        const c = this.cells.get(n);
        c.chart.update();
        c.now.textContent = vorn.pct(this.store.last("Cpu-> " + n + "->Total"));
      }
      this.box.dataset.processors = this.cells.size;
      // As tall as the charts beside it: one row for two processors, two rows for four;
      // more take the page's width in rows of small charts.
      const n = this.cells.size;
      this.box.style.setProperty("--cpu-height", n <= 2 ? "128px" : n <= 4 ? "50px" : "64px");
      this.box.style.gridTemplateColumns = n <= 4 ? `repeat(${Math.min(n, 2)}, minmax(0, 1fr))` : "";
    }
    cell(n) {
      const now = vorn.el("span");
      const canvas = vorn.el("canvas");
      this.box.append(vorn.el("div", { class: "cell" }, vorn.el("h3", {}, "cpu " + n, now),
        vorn.el("div", { class: "chart small" }, canvas)));
      const def = { id: "cpu-" + n, unit: "pct", stacked: true, max: 100,
                     lines: s => modeLines(s, "Cpu-> " + n + "->", " ") };
      return { now, chart: new StoreChart(canvas, def, this.store, true) };
    }
  }

  return { build, Processors, available: !!window.Chart };
})();
