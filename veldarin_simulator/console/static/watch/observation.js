// The results of a watched call so far: samples, and one series for each value in them.
import { Digits } from "../core/api.js";
import { isDictionary, isScalar, isTable } from "../results/values.js";

const MAX_SAMPLES = 600;
const MAX_POINTS = 400_000; // in all samples: of large results fewer samples are kept
const MAX_SERIES = 4000;
const NAMES = /^(name|port_name|.*name|group|interface|device|id|.*_id|ipAddress|entry)$/i;
const COUNTERS =
  /bytes|packet|count|changes|err|drop|flap|event|input|output|notifications|sent|recv/i;
const STATES = /status|state|link|carrier|role|guard|present|active|alarms|^result$/i;

export class Observation {
  constructor() {
    this.samples = [];
    this.dropped = 0;
    this.series = new Map();
  }

  get last() {
    return this.samples.at(-1);
  }

  // Adds the outcome of a call at a time in milliseconds.
  add(at, { result, exception }) {
    const value = exception ? null : result.value;
    this.samples.push({ at, value, exception: exception ? exception.text : undefined });
    const found = exception ? new Map() : flatten(value);
    const limit = Math.max(20, Math.min(MAX_SAMPLES, Math.trunc(MAX_POINTS / (found.size + 1))));
    while (this.samples.length > limit) {
      this.samples.shift();
      this.dropped += 1;
    }
    for (const [key, leaf] of found) {
      if (!this.series.has(key) && this.series.size < MAX_SERIES) {
        this.series.set(key, new Series(leaf));
      }
    }
    for (const [key, one] of this.series) one.add(at, found.get(key)?.value);
  }

  // The entities in the order of their first sample, each with its series.
  entities() {
    const groups = new Map();
    for (const one of this.series.values()) {
      if (!groups.has(one.entity)) groups.set(one.entity, []);
      groups.get(one.entity).push(one);
    }
    return groups;
  }

  // The changes of states in the last sample: ["port1 link: up → down", ...].
  lastStateChanges() {
    return [...this.series.values()]
      .filter((one) => one.kind === "state" && one.isChanged)
      .map((one) =>
        `${one.entity} ${one.label}: ${text(one.previous)} → ${text(one.value)}`.trim(),
      );
  }
}

class Series {
  constructor({ entity, label }) {
    this.entity = entity;
    this.label = label;
    this.points = []; // [at, value]
    this.changes = 0;
    this.hasDecreased = false;
  }

  get value() {
    return this.points.at(-1)?.[1];
  }

  get previous() {
    return this.points.at(-2)?.[1];
  }

  get isChanged() {
    return this.points.length > 1 && !isSame(this.value, this.previous);
  }

  add(at, value) {
    this.points.push([at, value]);
    if (this.points.length > MAX_SAMPLES) this.points.shift();
    if (!this.isChanged) return;
    this.changes += 1;
    const [now, before] = [number(value), number(this.previous)];
    if (now !== null && before !== null && now < before) this.hasDecreased = true;
  }

  // "counter", "gauge", "state" or "text".
  get kind() {
    const value = this.value ?? this.points.findLast(([, one]) => one !== undefined)?.[1];
    const name = this.label.split(" › ").at(-1);
    if (typeof value === "boolean" || (STATES.test(name) && number(value) === null)) return "state";
    if (number(value) === null) return this.changes && typeof value !== "string" ? "state" : "text";
    if (COUNTERS.test(name) && Number.isInteger(number(value))) return "counter";
    return this.changes ? "gauge" : "text";
  }

  // The increase in each interval by the second; null where the counter restarted or has no value.
  rates() {
    return this.points.slice(1).map(([at, value], index) => {
      const [earlier, before] = this.points[index];
      const [now, then] = [number(value), number(before)];
      const seconds = (at - earlier) / 1000;
      if (now === null || then === null || now < then || seconds <= 0) return null;
      return (now - then) / seconds;
    });
  }

  numbers() {
    return this.points.map(([, value]) => number(value));
  }

  // The increase since the first sample.
  get increase() {
    const first = this.points.find(([, value]) => number(value) !== null);
    return first && number(this.value) !== null ? number(this.value) - number(first[1]) : 0;
  }

  // The runs of equal values: [{ from, to, value }].
  runs() {
    const runs = [];
    for (const [at, value] of this.points) {
      const last = runs.at(-1);
      if (last) last.to = at;
      if (!last || !isSame(last.value, value)) runs.push({ from: at, to: at, value });
    }
    return runs;
  }
}

// A number or a text that is one, else null.
export function number(value) {
  if (typeof value === "number") return value;
  if (value instanceof Digits) return Number(value.text);
  if (typeof value !== "string" || !/^\s*-?\d+(\.\d+)?\s*$/.test(value)) return null;
  return Number(value);
}

export function text(value) {
  if (value === undefined) return "absent";
  if (value === null) return "None";
  if (value === true) return "True";
  if (value === false) return "False";
  if (value instanceof Digits) return value.text;
  return typeof value === "object" ? JSON.stringify(value) : String(value).trim();
}

export function isSame(a, b) {
  return text(a) === text(b) && typeof a === typeof b;
}

// The scalars of a result: key to { entity, label, value }. The dictionaries of a list are
// entities; a column with different texts names them.
function flatten(value) {
  const found = new Map();
  const walk = (one, entity, path) => {
    if (isScalar(one) || (Array.isArray(one) && one.every(isScalar))) {
      const label = path.join(" › ");
      found.set(`${entity}\n${label}`, { entity, label: label || "value", value: one });
    } else if (isTable(one)) {
      const naming = namingColumn(one);
      one.forEach((row, index) => {
        const name = naming === null ? `[${index}]` : text(row[naming]);
        const { [naming ?? Symbol("none")]: _, ...others } = row;
        if (path.length || entity) walk(others, entity, [...path, name]);
        else walk(others, name, []);
      });
    } else {
      for (const [key, inner] of Object.entries(one)) {
        const isEntity = !entity && !path.length && isDictionary(inner);
        if (isEntity) walk(inner, key, []);
        else walk(inner, entity, [...path, key]);
      }
    }
  };
  walk(value, "", []);
  return found;
}

// The first column whose values are different texts or numbers, or null.
export function namingColumn(rows) {
  const isNaming = (column) => {
    const values = rows.map((row) => row[column]);
    const isNamed = values.every((one) => typeof one === "string" || typeof one === "number");
    return isNamed && new Set(values).size === rows.length;
  };
  const columns = Object.keys(rows[0]);
  return columns.find((one) => NAMES.test(one) && isNaming(one)) ?? null;
}
