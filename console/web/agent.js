// The page of one agent: the hub's history first, then every measurement of the hub's live
// stream (compact form) into the charts, tiles and tables. The hub sends measurements only,
// never the first data packet of a connection, which covers no interval.
"use strict";

(() => {
  const { el, pct, bytes, byteRate, count, getJson } = vorn;
  const $ = id => document.getElementById(id);
  const params = vorn.params();
  const name = params.get("agent");
  const api = "api/agents/" + encodeURIComponent(name || "");
  let store, charts, processors, table;
  let latest = null;
  let rules = { rules: [] };
  let alertCount = 0;

  const notice = text => { $("notice").textContent = text; };

  function setStatus(up, message) {
    const pill = $("status");
    pill.className = "pill " + (up ? "up" : "down");
    pill.textContent = up ? "live" : "down";
    pill.title = message || "";
    document.body.dataset.up = String(up);
    if (!up && message) notice(message);
    else if (up) notice(vornCharts.available ? "" : $("notice").textContent);
  }

  const tile = (label, value, sub, cls) => el("div", { class: "tile " + (cls || "") },
    el("div", { class: "label" }, label), el("div", { class: "value" }, value), el("div", { class: "sub" }, sub));

  const share = v => v == null ? "–" : v.toFixed(0);

  function diskRates() {
    const names = store.match(/^Disk->(.+)->Total Operations$/).map(([n]) => n);
    const last = path => { const p = store.perSecond(path); return p.length ? p[p.length - 1].y : 0; };
    return names.filter(n => !vorn.isPartition(n, names)).reduce((sum, n) => ({
      ops: sum.ops + last("Disk->" + n + "->Total Operations"),
      bytes: sum.bytes + last("Disk->" + n + "->Total Transfers"),
    }), { ops: 0, bytes: 0 });
  }

  function summary(sample) {
    const v = sample.values;
    const processorCount = Object.keys(v).filter(p => /^Cpu-> \d+->Total$/.test(p)).length;
    const totalMb = Number(sample.texts["Memory-> System Memory (MB)"] ??
      (v["Memory-> Allocation(MB)-> Used"] || 0) + (v["Memory-> Allocation(MB)-> Free"] || 0));
    const usedMb = v["Memory-> Allocation(MB)-> Used"];
    const disk = diskRates();
    const firing = rules.rules.filter(r => r.firing).length;
    const box = $("summary");
    Object.assign(box.dataset, { processors: processorCount, memTotalMb: totalMb, packet: sample.packet,
                                 cpu: v["Cpu->Average Utilization"], processes: sample.processes.length,
                                 firing });
    box.replaceChildren(
      tile("CPU", pct(v["Cpu->Average Utilization"]),
           `usr ${share(v["Cpu-> Mode Averages->User"])} sys ${share(v["Cpu-> Mode Averages->System"])} wait ${share(v["Cpu-> Mode Averages->Wait"])}`),
      tile("Memory", pct(v["Memory-> % Memory Utilization"]), `${bytes(usedMb * 1048576)} of ${bytes(totalMb * 1048576)}`),
      tile("Paging", count(v["Memory-> Paging by Type-> Total"]) + "/s", `major ${count(v["Memory-> Paging by Type-> Major"])}/s`),
      tile("Disk", byteRate(disk.bytes), `${count(disk.ops)} ops/s`),
      tile("Network", byteRate(v["Network->TCP->Data Rate->Received"]), `in · out ${byteRate(v["Network->TCP->Data Rate->Sent"])}`),
      tile("Processes", String(sample.processes.length), `${processorCount} processors`),
      tile("Alerts", String(firing), `of ${rules.rules.length} rules firing`, firing ? "alerting" : ""));
    $("processor-count").textContent = processorCount + " online";
    // Many processors need the whole width; a few share a cell with the charts.
    $("processor-panel").classList.toggle("wide", processorCount > 8);
  }

  function redraw() {
    for (const c of charts) c.update();
    processors.update();
  }

  function onSample(sample) {
    latest = sample;
    store.addSample(sample);
    redraw();
    summary(sample);
    table.set(sample);
    vornTables.renderFileSystems($("filesystems"), sample, $("all-fs").checked);
    $("updated").textContent = `packet ${sample.packet} · every ${sample.interval} s · ${vorn.clock(sample.unix_ms)}`;
    document.body.dataset.samples = Number(document.body.dataset.samples || 0) + 1;
    document.body.dataset.state = "live";
  }

  function addAlert(record, newestFirst) {
    const list = $("alerts");
    if (newestFirst) list.prepend(vornTables.alertItem(record));
    else list.append(vornTables.alertItem(record));
    while (list.children.length > 200) list.lastChild.remove();
    alertCount++;
    $("alert-count").textContent = String(alertCount);
  }

  async function refreshRules() {
    rules = await getJson(api + "/rules");
    vornTables.renderRules($("rules"), rules);
    if (rules.last_error) notice(rules.last_error);
    if (latest) summary(latest);
  }

  function listen() {
    const source = new EventSource(api + "/stream?format=compact");
    source.addEventListener("sample", e => onSample(JSON.parse(e.data)));
    source.addEventListener("status", e => {
      const s = JSON.parse(e.data);
      setStatus(s.up, s.message);
      if (s.up) refreshRules().catch(() => {});
    });
    source.addEventListener("alert", e => {
      const a = JSON.parse(e.data);
      addAlert({ received_ms: Date.now(), raised: a.raised, alert: a.alert }, true);
      refreshRules().catch(() => {});
    });
    source.onerror = () => setStatus(false, "The hub's live stream was lost; the browser is reconnecting.");
    // Back after a loss of the hub: the agent's own state, which no event repeats.
    source.onopen = () => getJson(api).then(s => setStatus(s.up, s.last_error)).catch(() => {});
  }

  async function start() {
    if (!name) return notice("No agent named: open an agent from the fleet page.");
    $("agent-name").textContent = name;
    document.title = name + " · vornmon";
    if (!vornCharts.available)
      notice("The chart library (vendor/chart.min.js) did not load, so no chart is drawn: " +
             "install the console's page files or Debian's libjs-chart.js.");
    const [fleet, status] = await Promise.all([getJson("api/fleet"), getJson(api)]);
    store = new SeriesStore(fleet.history_s * 1000);
    store.interval = fleet.interval;
    $("agent-instance").textContent = status.instance;
    setStatus(status.up, status.last_error);
    charts = vornCharts.build($("charts"), store);
    $("charts").append($("processor-panel"));  // after the host-wide charts
    processors = new vornCharts.Processors($("processors"), store);
    table = new vornTables.ProcessTable($("processes"), params.get("filter"));
    $("all-fs").addEventListener("change", () => latest &&
      vornTables.renderFileSystems($("filesystems"), latest, $("all-fs").checked));
    const prefixes = ["Cpu->", "Memory->", "Disk->", "Network->"]
      .map(p => "prefix=" + encodeURIComponent(p)).join("&");
    const [history, alerts] = await Promise.all([
      getJson(api + "/history?" + prefixes), getJson(api + "/alerts"), refreshRules()]);
    store.addHistory(history.series);
    redraw();
    for (const record of alerts.slice(-200)) addAlert(record, true);
    listen();
  }

  start().catch(e => {
    notice("Could not load this agent from the hub: " + e.message);
    document.body.dataset.state = "error";
  });
})();
