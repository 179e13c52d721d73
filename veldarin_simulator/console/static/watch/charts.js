// Small pictures of a series: a sparkline of numbers, a strip of states over time.
import { el, svg } from "../core/dom.js";
import { clock, plural } from "../core/text.js";
import { text } from "./observation.js";

const WIDTH = 120;
const HEIGHT = 26;
const POINTS = 60;
const KINDS = [
  ["good", /^(up|true|ok|forwarding|bundled|full|running|active|established|yes|present)$/i],
  ["bad", /^(down|false|error|failed|blocked|blocking|discarding|broken|disabled|no|absent)$/i],
  ["warned", /^(degraded|init|admin.?down|learning|listening|shutdown|stop|flapping|triggered)$/i],
];

// A line of at most sixty numbers; null leaves a gap.
export function sparkline(values, label) {
  const shown = values.slice(-POINTS);
  const known = shown.filter((one) => one !== null);
  const [low, high] = [Math.min(0, ...known), Math.max(...known, 0)];
  const x = (index) => ((index + POINTS - shown.length) * (WIDTH - 4)) / (POINTS - 1) + 1;
  const y = (value) => HEIGHT - 3 - ((value - low) * (HEIGHT - 6)) / (high - low || 1);
  let path = "";
  shown.forEach((one, index) => {
    const isStart = index === 0 || shown[index - 1] === null;
    if (one !== null) path += `${isStart ? "M" : "L"}${x(index).toFixed(1)} ${y(one).toFixed(1)}`;
  });
  const last = shown.at(-1) ?? null;
  return svg(
    "svg.sparkline",
    {
      viewBox: `0 0 ${WIDTH} ${HEIGHT}`,
      role: "img",
      "aria-label": label,
      preserveAspectRatio: "none",
    },
    svg("path.base", { d: `M1 ${y(0).toFixed(1)}H${WIDTH - 3}` }),
    svg("path.trend", { d: path }),
    last === null
      ? null
      : svg("path.dot", { d: `M${x(shown.length - 1).toFixed(1)} ${y(last).toFixed(1)}h0` }),
  );
}

// A bar with a part for each run of equal states; `from` and `to` are the first and last sample.
export function strip(runs, from, to, label) {
  // The last sample takes some width too.
  const end = to + Math.max((to - from) / 40, 1);
  const scale = (time) => ((time - from) * 100) / (end - from);
  const parts = runs.map((run, index) => {
    const title = `${text(run.value)} from ${clock(run.from)} to ${clock(run.to)}`;
    const width = scale(runs[index + 1]?.from ?? end) - scale(run.from);
    const attributes = { x: scale(run.from).toFixed(2), width: width.toFixed(2) };
    return svg(
      `rect.state-${stateKind(run.value)}`,
      { ...attributes, y: "0", height: "14" },
      svg("title", {}, title),
    );
  });
  const changes = runs.length - 1;
  const said = `${label}: ${text(runs.at(-1)?.value)}, ${plural(changes, "change")}`;
  return svg(
    "svg.strip",
    { viewBox: "0 0 100 14", preserveAspectRatio: "none", role: "img", "aria-label": said },
    parts,
  );
}

export function stateKind(value) {
  if (value === undefined || value === null) return "unknown";
  const shown = text(value);
  return KINDS.find(([, pattern]) => pattern.test(shown))?.[0] ?? "neutral";
}

export function statePill(value, isChanged = false) {
  const mark = isChanged ? ".changed" : "";
  return el(`span.pill.pill-${stateKind(value)}${mark}`, text(value));
}

const UNITS = ["", "k", "M", "G", "T"];

// A number with three significant digits and a unit prefix.
export function short(value, unit = "") {
  if (value === null || value === undefined) return "–";
  let [scaled, index] = [value, 0];
  while (Math.abs(scaled) >= 1000 && index < UNITS.length - 1)
    [scaled, index] = [scaled / 1000, index + 1];
  const digits =
    Number.isInteger(scaled) && index === 0 ? 0 : scaled >= 100 ? 0 : scaled >= 10 ? 1 : 2;
  const space = unit ? " " : "";
  return `${scaled.toFixed(digits)}${space}${UNITS[index]}${unit}`;
}
