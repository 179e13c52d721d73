// The views of an observation: a general one, and those made for ports, BFD sessions and links.
import { badge, el } from "../core/dom.js";
import { clock, visible } from "../core/text.js";
import { node } from "../results/values.js";
import { short, sparkline, statePill, strip } from "./charts.js";
import { number, text } from "./observation.js";

const MAX_ROWS = 300;

// By function: title and summary of its view, a call to begin with, and the view's class.
export const MADE_VIEWS = {
  list_switch_port_statistics: {
    title: "Port statistics",
    text: "Traffic in each direction, errors and drops of every port.",
    body: { arguments: [null], keywords: {} },
    draw: drawPorts,
  },
  list_bfd_neighbor: {
    title: "BFD sessions",
    text: "State over time, timers and packets of every session.",
    body: { arguments: [], keywords: {} },
    draw: drawSessions,
  },
  list_system_link_monitor_status: {
    title: "Link monitor",
    text: "State of every link over time, and its carrier changes.",
    body: { arguments: [], keywords: {} },
    draw: drawLinks,
  },
};

// Returns the elements for an observation.
export function draw(name, observation, onlyChanged) {
  const made = MADE_VIEWS[name]?.draw(observation);
  return made ?? drawSeries(observation, onlyChanged);
}

export function drawSeries(observation, onlyChanged) {
  let left = MAX_ROWS;
  const groups = [];
  let hidden = 0;
  for (const [entity, series] of observation.entities()) {
    const listed = onlyChanged ? series.filter((one) => one.changes) : series;
    hidden += Math.max(0, listed.length - left);
    const rows = listed.slice(0, left).map((one) => seriesRow(one, observation));
    left -= rows.length;
    if (rows.length) groups.push(entity ? groupRow(entity) : null, rows);
  }
  if (!groups.length) {
    const nothing = onlyChanged ? "Nothing has changed yet." : "The result holds no values.";
    return el("p.empty.small", nothing);
  }
  const titles = ["Value", "Now", "Change", "Over time"];
  return [
    region(
      el(
        "table.watched",
        el(
          "thead",
          el(
            "tr",
            titles.map((one) => el("th", { scope: "col" }, one)),
          ),
        ),
        el("tbody", groups.filter(Boolean)),
      ),
    ),
    hidden ? el("p.hint", `${hidden} more values are recorded and exported, but not shown.`) : null,
  ];
}

function groupRow(entity) {
  return el("tr.entity", el("th", { colspan: "4", scope: "rowgroup" }, visible(entity)));
}

function seriesRow(one, observation) {
  const mark = one.isChanged ? "tr.changed" : "tr";
  return el(
    mark,
    el("th", { scope: "row" }, visible(one.label)),
    el("td", one.kind === "state" ? statePill(one.value, one.isChanged) : nowNode(one)),
    el("td.change", change(one)),
    el("td.chart", chart(one, observation)),
  );
}

function nowNode(one) {
  return one.value === undefined ? el("span.v-absent", "absent") : node(one.value);
}

// The last change: a rate of a counter, a difference of a number, the previous state.
function change(one) {
  if (one.kind === "counter") {
    const rate = one.rates().at(-1);
    if (rate === null) return "restarted";
    return rate ? [mark("▲"), `${short(rate)}/s`] : rate === 0 ? "0/s" : "";
  }
  if (!one.isChanged) return one.changes && one.kind !== "gauge" ? `${one.changes}×` : "";
  const [now, before] = [number(one.value), number(one.previous)];
  if (now !== null && before !== null)
    return [mark(now > before ? "▲" : "▼"), short(Math.abs(now - before))];
  return [mark("●"), "was ", visible(text(one.previous))];
}

function mark(sign) {
  return el("span.mark", { "aria-hidden": "true" }, `${sign} `);
}

function chart(one, observation) {
  const samples = observation.samples;
  if (one.kind === "counter") {
    const rates = one.rates();
    return rates.length ? sparkline(rates, `${one.label}: ${short(rates.at(-1))} per second`) : "";
  }
  if (one.kind === "gauge")
    return sparkline(one.numbers(), `${one.label}: ${short(number(one.value))}`);
  if (one.kind === "state") return strip(one.runs(), samples[0].at, samples.at(-1).at, one.label);
  return "";
}

function region(table) {
  return el("div.table", { role: "region", "aria-label": "Watched values", tabindex: "0" }, table);
}

// Ports

const PORT_COLUMNS = [
  ["In", "bytes_recv", 8, "bit/s"],
  ["Out", "bytes_sent", 8, "bit/s"],
  ["Packets in", "packets_recv", 1, "/s"],
  ["Packets out", "packets_sent", 1, "/s"],
];
const PORT_FAULTS = [
  ["Errors in", "errin"],
  ["Errors out", "errout"],
  ["Drops in", "dropin"],
  ["Drops out", "dropout"],
];

function drawPorts(observation) {
  const ports = [...observation.entities()].map(([name, series]) => [name, byLabel(series)]);
  if (!ports.length || !ports.every(([, values]) => values.bytes_recv && values.bytes_sent))
    return null;
  const titles = [
    "Port",
    ...PORT_COLUMNS.map(([title]) => title),
    ...PORT_FAULTS.map(([title]) => title),
  ];
  const rate = (values, [title, label, factor, unit]) => {
    const series = values[label];
    if (!series) return el("td", "–");
    const rates = series.rates().map((one) => (one === null ? null : one * factor));
    const now = rates.length ? short(rates.at(-1), unit) : "…";
    const total = `${short(number(series.value))} in total`;
    return el(
      series.isChanged ? "td.number.changed" : "td.number",
      { "data-label": title },
      el("span.rate", { title: total }, now),
      rates.length ? sparkline(rates, `${title}: ${now}`) : null,
    );
  };
  const fault = (values, [title, label]) => {
    const series = values[label];
    const value = series ? number(series.value) : null;
    const kind = value ? (series.increase > 0 ? "td.number.bad" : "td.number.warned") : "td.number";
    const more = series?.increase > 0 ? el("span.more", ` +${short(series.increase)}`) : null;
    return el(
      kind,
      { "data-label": title },
      value === null ? "–" : value.toLocaleString("en"),
      more,
    );
  };
  const rows = ports.map(([name, values]) =>
    el(
      "tr",
      el("th", { scope: "row" }, visible(name)),
      PORT_COLUMNS.map((column) => rate(values, column)),
      PORT_FAULTS.map((column) => fault(values, column)),
    ),
  );
  return region(
    el(
      "table.ports.stacked-rows",
      el(
        "thead",
        el(
          "tr",
          titles.map((one, index) => el(index ? "th.number" : "th", { scope: "col" }, one)),
        ),
      ),
      el("tbody", rows),
    ),
  );
}

// BFD sessions

function drawSessions(observation) {
  const sessions = [...observation.entities()].map(([name, series]) => [name, byLabel(series)]);
  if (!sessions.length || !sessions.every(([, values]) => values.status)) return null;
  return el(
    "div.cards",
    sessions.map(([name, values]) => sessionCard(name, values, observation)),
  );
}

function sessionCard(name, values, observation) {
  const shown = (label) => (values[label] ? visible(text(values[label].value)) : "–");
  const timers = (side) => [
    shown(`${side}_timers › receive_interval`),
    " in, ",
    shown(`${side}_timers › transmission_interval`),
    " out, × ",
    shown(`${side}_timers › detect-multiplier`),
  ];
  const packets = (label) => {
    const series = values[label];
    if (!series) return "–";
    const rates = series.rates();
    const rate = rates.length ? short(rates.at(-1), "/s") : "…";
    return [
      el("span.rate", `${short(number(series.value))}, ${rate}`),
      rates.length ? sparkline(rates, `${label}: ${rate}`) : null,
    ];
  };
  const facts = [
    ["Uptime", shown("uptime")],
    ["Diagnostics", [shown("diagnostics"), ", remote ", shown("remote_diagnostics")]],
    ["Local timers", timers("local")],
    ["Remote timers", timers("remote")],
    ["Packets in", packets("control_packet_input")],
    ["Packets out", packets("control_packet_output")],
    ["Went up, down", [shown("session_up_events"), ", ", shown("session_down_events")]],
  ];
  return card(
    name,
    [shown("neighbor_ip"), " on ", shown("interface")],
    values.status,
    observation,
    facts,
  );
}

// Links

function drawLinks(observation) {
  const links = [...observation.entities()].map(([name, series]) => [name, byLabel(series)]);
  if (!links.length || !links.every(([, values]) => values.status)) return null;
  return el(
    "div.cards",
    links.map(([name, values]) => {
      const count = (label) => {
        const series = values[label];
        if (!series) return "–";
        const more = series.increase
          ? badge(`+${short(series.increase)} seen here`, "modified")
          : null;
        return [visible(text(series.value)), more && " ", more];
      };
      const facts = [
        ["Carrier", values.carrier ? visible(text(values.carrier.value)) : "–"],
        ["Carrier changes", count("carrier_changes")],
        ["Went up", count("carrier_up_count")],
        ["Went down", count("carrier_down_count")],
      ];
      return card(name, visible(name), values.status, observation, facts);
    }),
  );
}

function card(name, title, status, observation, facts) {
  const { samples } = observation;
  const since = status.runs().at(-1);
  return el(
    "section.card",
    { "aria-label": name },
    el("header", el("h2", title), statePill(status.value, status.isChanged)),
    strip(status.runs(), samples[0].at, samples.at(-1).at, `${name} status`),
    el(
      "p.hint",
      `${text(status.value)} since ${clock(since.from)}`,
      since.from === samples[0].at ? " or earlier" : "",
    ),
    el(
      "dl.facts",
      facts.map(([term, value]) => [el("dt", term), el("dd", value)]),
    ),
  );
}

function byLabel(series) {
  return Object.fromEntries(series.map((one) => [one.label, one]));
}
