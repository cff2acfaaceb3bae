// Helpers both pages share: figures for people, requests to the hub, small DOM builders.
"use strict";

const vorn = (() => {
  const units = ["", "k", "M", "G", "T", "P"];

  // 1234567 -> "1.23M": rates and counts, three significant figures.
  function count(v) {
    if (v == null || !isFinite(v)) return "–";
    let i = 0;
    let x = Math.abs(v);
    while (x >= 999.5 && i < units.length - 1) { x /= 1000; i++; }
    const text = x >= 99.5 || i === 0 && Number.isInteger(v) ? x.toFixed(0)
      : x >= 9.95 ? x.toFixed(1) : x.toFixed(2);
    return (v < 0 ? "-" : "") + text + units[i];
  }

  // Sizes in powers of 1024: 25275924480 -> "23.5 GiB".
  function bytes(v) {
    if (v == null || !isFinite(v)) return "–";
    const names = ["B", "KiB", "MiB", "GiB", "TiB", "PiB"];
    let i = 0;
    let x = Math.abs(v);
    while (x >= 1023.5 && i < names.length - 1) { x /= 1024; i++; }
    const text = i === 0 || x >= 99.5 ? x.toFixed(0) : x >= 9.95 ? x.toFixed(1) : x.toFixed(2);
    return text + " " + names[i];
  }

  const rate = v => count(v) + "/s";
  const byteRate = v => bytes(v) + "/s";
  const pct = v => v == null || !isFinite(v) ? "–" : v.toFixed(v >= 99.95 ? 0 : 1) + "%";
  const two = n => String(n).padStart(2, "0");
  function clock(ms) {
    const d = new Date(ms);
    return two(d.getHours()) + ":" + two(d.getMinutes()) + ":" + two(d.getSeconds());
  }
  function age(ms) {
    if (!ms) return "never";
    const s = Math.max(0, Math.round((Date.now() - ms) / 1000));
    return s < 60 ? s + " s ago" : s < 3600 ? Math.round(s / 60) + " min ago"
      : Math.round(s / 3600) + " h ago";
  }

  async function getJson(url) {
    const res = await fetch(url, { cache: "no-cache" });
    if (!res.ok) throw new Error(url + ": HTTP " + res.status);
    return res.json();
  }

  // el("td", {class: "num", dataset: {pid: 1}}, "text", child, ...)
  function el(tag, attrs, ...children) {
    const e = document.createElement(tag);
    for (const [k, v] of Object.entries(attrs || {})) {
      if (k === "dataset") Object.assign(e.dataset, v);
      else if (k === "class") e.className = v;
      else if (v != null) e.setAttribute(k, v);
    }
    for (const c of children) if (c != null) e.append(c);
    return e;
  }

  // A bar of shares (0..100 each), with a figure written over it.
  function meter(parts, label) {
    const m = el("div", { class: "meter" });
    let left = 0;
    for (const [cls, share] of parts) {
      const w = Math.max(0, Math.min(100 - left, share || 0));
      m.append(el("i", { class: cls, style: `left:${left}%;width:${w}%` }));
      left += w;
    }
    m.append(el("b", {}, label));
    return m;
  }

  function fillClass(p) { return p >= 90 ? "fill full" : p >= 75 ? "fill high" : "fill"; }

  // A device that is a partition of another listed one (sda1 of sda, nvme0n1p2 of nvme0n1)
  // would count its work twice in a total.
  function isPartition(name, devices) {
    return devices.some(d => d !== name && name.startsWith(d) &&
      (/\d$/.test(d) ? /^p\d+$/.test(name.slice(d.length)) : /^\d+$/.test(name.slice(d.length))));
  }

  function params() {
    const q = new URLSearchParams(location.search);
    const h = new URLSearchParams(location.hash.replace(/^#/, ""));
    return { get: k => h.get(k) ?? q.get(k) };
  }

  return { count, bytes, rate, byteRate, pct, clock, age, getJson, el, meter, fillClass,
           isPartition, params };
})();
