// The live view: fetches the state once, then redraws from the server's update
// stream. Charts are uPlot's; this file only feeds them.
const token = new URLSearchParams(location.search).get("token");
const $ = (selector) => document.querySelector(selector);
const RATE_WINDOW_S = 60;

async function api(path, options = {}) {
  const headers = { "Content-Type": "application/json" };
  if (token) headers.Authorization = `Bearer ${token}`;
  const response = await fetch(path, { ...options, headers });
  const body = await response.json();
  if (!response.ok) throw Object.assign(new Error(body.error), { field: body.field });
  return body;
}

function say(text) {
  $("#message").textContent = text;
}

function formatRate(value) {
  if (value >= 1e6) return `${(value / 1e6).toFixed(2)} M/s`;
  if (value >= 1e3) return `${(value / 1e3).toFixed(1)} k/s`;
  return `${value.toFixed(0)} /s`;
}

// --- Count rates: a strip chart of the last minute --------------------------------------------

const rates = { chart: null, channels: [], times: [], values: [] };

function ratesChart(channels) {
  const element = $("#rates-chart");
  element.replaceChildren();
  const series = [{}].concat(channels.map((channel, i) => ({
    label: `input ${channel}`,
    stroke: `hsl(${(i * 67) % 360} 70% 45%)`,
    value: (u, v) => (v == null ? "-" : formatRate(v)),
  })));
  return new uPlot({
    width: Math.min(1100, window.innerWidth - 40), height: 260, series,
    axes: [{}, { size: 70, values: (u, ticks) => ticks.map(formatRate) }],
  }, [[], ...channels.map(() => [])], element);
}

function showRates() {
  const data = [rates.times, ...rates.channels.map((_, i) => rates.values.map((row) => row[i]))];
  rates.chart.setData(data);
  const last = rates.values[rates.values.length - 1] || [];
  $("#rates-now").replaceChildren(...rates.channels.map((channel, i) => {
    const item = document.createElement("li");
    item.dataset.channel = channel;
    item.dataset.rate = last[i] ?? 0;
    item.textContent = `input ${channel}: ${formatRate(last[i] ?? 0)}`;
    return item;
  }));
}

async function loadRates() {
  const history = await api("/api/rates");
  rates.channels = history.channels;
  rates.times = history.times;
  rates.values = history.rates;
  rates.chart = ratesChart(rates.channels);
  showRates();
}

function addRates(latest) {
  if (String(latest.channels) !== String(rates.channels)) return loadRates();
  if (latest.time === undefined || latest.time === rates.times[rates.times.length - 1]) return;
  rates.times.push(latest.time);
  rates.values.push(latest.rates);
  while (rates.times.length && rates.times[0] < latest.time - RATE_WINDOW_S) {
    rates.times.shift();
    rates.values.shift();
  }
  showRates();
}

// --- Histogram panels -------------------------------------------------------------------------

const panels = new Map();

function panelTitle(p) {
  const sign = p.kind === "correlation" ? "\u2212" : "\u2192";
  return `${p.kind} ${p.channels[0]} ${sign} ${p.channels[1]}, ${p.binwidth} ps bins`;
}

function addPanel(p) {
  const element = document.createElement("div");
  element.className = "panel";
  element.dataset.id = p.id;
  const title = document.createElement("h3");
  const peak = document.createElement("span");
  peak.className = "peak";
  const close = document.createElement("button");
  close.textContent = "remove";
  close.onclick = () => api(`/api/panels/${p.id}`, { method: "DELETE" })
    .then(() => removePanel(p.id)).catch((e) => say(e.message));
  const clear = document.createElement("button");
  clear.textContent = "clear";
  clear.onclick = () => api(`/api/panels/${p.id}/clear`, { method: "POST" }).catch((e) => say(e.message));
  title.append(panelTitle(p), peak, clear, close);
  const chartElement = document.createElement("div");
  element.append(title, chartElement);
  $("#panels").append(element);
  const x = Array.from({ length: p.bins }, (_, i) => p.first_bin + (i + 0.5) * p.binwidth);
  const chart = new uPlot({
    width: 520, height: 240,
    scales: { x: { time: false } },
    axes: [{ label: "ps" }, { size: 60 }],
    series: [{ label: "ps" }, { label: "counts", stroke: "#1565c0", fill: "#1565c033", paths: uPlot.paths.stepped({ align: 1 }) }],
  }, [x, x.map(() => 0)], chartElement);
  panels.set(p.id, { p, chart, x, peak, element });
}

function removePanel(id) {
  const panel = panels.get(id);
  if (!panel) return;
  panel.chart.destroy();
  panel.element.remove();
  panels.delete(id);
}

function showPanel(id, counts) {
  const panel = panels.get(id);
  if (!panel) return;
  panel.chart.setData([panel.x, counts]);
  let best = 0;
  for (let i = 1; i < counts.length; i++) if (counts[i] > counts[best]) best = i;
  const total = counts.reduce((a, b) => a + b, 0);
  panel.peak.dataset.peak = total > 0 ? panel.x[best] : "";
  panel.peak.textContent = total > 0 ? `peak at ${panel.x[best]} ps, ${total} counts` : "no counts yet";
}

async function loadPanels() {
  for (const p of await api("/api/panels")) if (!panels.has(p.id)) addPanel(p);
}

$("#new-panel").addEventListener("submit", async (event) => {
  event.preventDefault();
  const form = event.target.elements;
  const asTime = (text) => (/^-?\d+$/.test(text.trim()) ? Number(text) : text.trim());
  try {
    const p = await api("/api/panels", {
      method: "POST",
      body: JSON.stringify({
        kind: form.kind.value, channels: [Number(form.a.value), Number(form.b.value)],
        binwidth: asTime(form.binwidth.value), range: asTime(form.range.value),
      }),
    });
    addPanel(p);
    say("");
  } catch (e) {
    say(e.message);
  }
});

// --- Input settings ---------------------------------------------------------------------------

const settingFields = [
  ["enabled", "checkbox"], ["trigger_level", "number"], ["input_delay", "text"],
  ["dead_time", "text"], ["test_signal", "checkbox"],
];

function settingValue(input, field) {
  if (input.type === "checkbox") return input.checked;
  if (field === "trigger_level") return Number(input.value);
  const text = input.value.trim();
  return /^-?\d+$/.test(text) ? Number(text) : text;
}

function fillRow(row, settings) {
  for (const [field] of settingFields) {
    const input = row.querySelector(`[name="${field}"]`);
    if (input.type === "checkbox") input.checked = settings[field];
    else input.value = settings[field];
    input.classList.remove("refused");
  }
}

function channelRow(settings, range) {
  const row = document.createElement("tr");
  row.dataset.channel = settings.channel;
  const label = document.createElement("td");
  label.textContent = settings.channel;
  row.append(label);
  for (const [field, type] of settingFields) {
    const input = document.createElement("input");
    input.type = type;
    input.name = field;
    if (field === "trigger_level") Object.assign(input, { min: range[0], max: range[1], step: 0.01 });
    input.addEventListener("change", async () => {
      try {
        const now = await api(`/api/channels/${settings.channel}`, {
          method: "POST", body: JSON.stringify({ [field]: settingValue(input, field) }),
        });
        fillRow(row, now);
        say("");
        if (field === "enabled") loadRates();
      } catch (e) {
        input.classList.add("refused");
        say(`input ${settings.channel}: ${e.message}`);
      }
    });
    const cell = document.createElement("td");
    cell.append(input);
    row.append(cell);
  }
  fillRow(row, settings);
  return row;
}

async function loadChannels() {
  const all = await api("/api/channels");
  $("#channels tbody").replaceChildren(...all.channels.map((s) => channelRow(s, all.trigger_range)));
}

// --- Recording --------------------------------------------------------------------------------

function showRecording(state) {
  $("#record").disabled = state.active;
  $("#stop").disabled = !state.active;
  $("#record-status").textContent = state.active
    ? `recording ${state.name}: ${state.events} tags, ${(state.seconds ?? 0).toFixed(1)} s`
    : state.name ? `${state.name}: ${state.events} tags saved` : "";
}

$("#recorder").addEventListener("submit", async (event) => {
  event.preventDefault();
  try {
    showRecording(await api("/api/recording", {
      method: "POST", body: JSON.stringify({ name: $("#record-name").value }),
    }));
    say("");
  } catch (e) {
    say(e.message);
  }
});

$("#stop").addEventListener("click", async () => {
  try {
    const done = await api("/api/recording/stop", { method: "POST" });
    stoppedRecording = done;
    showRecording(done);
  } catch (e) {
    say(e.message);
  }
});
let stoppedRecording = null;

// --- Reports tab ------------------------------------------------------------------------------

async function loadReports() {
  const [health, configuration] = await Promise.all([api("/api/health"), api("/api/configuration")]);
  $("#health").textContent = `${health.text}\noverflows\t${health.overflows}`;
  $("#configuration").textContent = JSON.stringify(configuration, null, 2);
}

for (const button of document.querySelectorAll("nav button")) {
  button.addEventListener("click", () => {
    for (const other of document.querySelectorAll("nav button")) {
      other.classList.toggle("active", other === button);
      $(`#${other.dataset.tab}`).hidden = other !== button;
    }
    if (button.dataset.tab === "reports") loadReports().catch((e) => say(e.message));
  });
}
$("#refresh-reports").addEventListener("click", () => loadReports().catch((e) => say(e.message)));

// --- Update stream ----------------------------------------------------------------------------

function listen() {
  const events = new EventSource(`/api/events${token ? `?token=${encodeURIComponent(token)}` : ""}`);
  events.onopen = () => {
    $("#connection").textContent = "live";
    $("#connection").className = "on";
  };
  events.onerror = () => {
    $("#connection").textContent = "reconnecting";
    $("#connection").className = "off";
  };
  events.onmessage = (message) => {
    const update = JSON.parse(message.data);
    addRates(update.rates);
    for (const p of update.panels) {
      if (!panels.has(p.id)) loadPanels();
      else showPanel(p.id, p.counts);
    }
    const live = new Set(update.panels.map((p) => p.id));
    for (const id of [...panels.keys()]) if (!live.has(id)) removePanel(id);
    if (update.recording.active || !stoppedRecording) showRecording(update.recording);
    if (update.recording.active) stoppedRecording = null;
  };
}

try {
  await Promise.all([loadRates(), loadPanels(), loadChannels()]);
} catch (e) {
  say(e.message);
}
listen();
