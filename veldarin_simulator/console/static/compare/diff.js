// The differences of two values, and of two lists of lines.
import { isDictionary, isScalar, isTable } from "../results/values.js";
import { isSame, namingColumn, text } from "../watch/observation.js";

const MAX_CELLS = 4_000_000; // of the table of the line comparison

// Returns [{ path, kind, left, right }] for every scalar of both; kind is "same", "changed",
// "left" or "right" for what only that side has. Lists of dictionaries match by a naming column.
export function diffValues(left, right, path = "") {
  if (isTable(left) && isTable(right)) {
    const [a, b] = [keyed(left), keyed(right)];
    if (a && b && a.naming === b.naming) return diffMembers(a.members, b.members, path);
  }
  if (Array.isArray(left) && Array.isArray(right) && !(isList(left) && isList(right))) {
    const indexed = (list) => new Map(list.map((one, index) => [`[${index}]`, one]));
    return diffMembers(indexed(left), indexed(right), path);
  }
  if (isDictionary(left) && isDictionary(right)) {
    return diffMembers(new Map(Object.entries(left)), new Map(Object.entries(right)), path);
  }
  if (isLeaf(left) && isLeaf(right)) {
    return [{ path, kind: isSame(left, right) ? "same" : "changed", left, right }];
  }
  return [...leaves(left, path, "left"), ...leaves(right, path, "right")];
}

function diffMembers(a, b, path) {
  const found = [];
  for (const [key, one] of a) {
    const own = join(path, key);
    if (b.has(key)) found.push(...diffValues(one, b.get(key), own));
    else found.push(...leaves(one, own, "left"));
  }
  for (const [key, one] of b) if (!a.has(key)) found.push(...leaves(one, join(path, key), "right"));
  return found;
}

function leaves(value, path, side) {
  if (isLeaf(value)) return [{ path, kind: side, [side]: value }];
  const table = isTable(value) ? keyed(value) : null;
  const indexed = Object.entries(value).map(([key, one]) => [
    Array.isArray(value) ? `[${key}]` : key,
    one,
  ]);
  return [...(table?.members ?? indexed)].flatMap(([key, one]) =>
    leaves(one, join(path, key), side),
  );
}

function keyed(rows) {
  const naming = namingColumn(rows);
  if (naming === null) return null;
  return { naming, members: new Map(rows.map((row) => [text(row[naming]), row])) };
}

function isList(value) {
  return value.every(isScalar);
}

// Lists of scalars compare as one value.
function isLeaf(value) {
  return isScalar(value) || (Array.isArray(value) && isList(value)) || !Object.keys(value).length;
}

function join(path, key) {
  return path ? `${path} › ${key}` : key;
}

// Returns [[left line or null, right line or null], ...]; each line is [number, text].
export function diffLines(left, right) {
  let start = 0;
  while (start < Math.min(left.length, right.length) && left[start] === right[start]) start += 1;
  let end = 0;
  const most = Math.min(left.length, right.length) - start;
  while (end < most && left.at(-1 - end) === right.at(-1 - end)) end += 1;
  const number = (lines, offset) => lines.map((line, index) => [index + offset + 1, line]);
  const a = number(left, 0);
  const b = number(right, 0);
  const middle = align(a.slice(start, a.length - end), b.slice(start, b.length - end));
  const pairs = (from, to, shift) =>
    a.slice(from, to).map((line, index) => [line, b[from + index + shift]]);
  const tail = pairs(a.length - end, a.length, b.length - a.length);
  return [...pairs(0, start, 0), ...middle, ...tail];
}

// Aligns lines by their longest common subsequence.
function align(a, b) {
  if (a.length * b.length > MAX_CELLS) return aside(a, b);
  const width = b.length + 1;
  const lengths = new Uint32Array((a.length + 1) * width);
  for (let i = a.length - 1; i >= 0; i -= 1) {
    for (let j = b.length - 1; j >= 0; j -= 1) {
      lengths[i * width + j] =
        a[i][1] === b[j][1]
          ? lengths[(i + 1) * width + j + 1] + 1
          : Math.max(lengths[(i + 1) * width + j], lengths[i * width + j + 1]);
    }
  }
  const pairs = [];
  let [i, j, onlyA, onlyB] = [0, 0, [], []];
  const flush = () => {
    pairs.push(...aside(onlyA, onlyB));
    [onlyA, onlyB] = [[], []];
  };
  while (i < a.length || j < b.length) {
    if (i < a.length && j < b.length && a[i][1] === b[j][1]) {
      flush();
      pairs.push([a[i++], b[j++]]);
    } else if (
      j === b.length ||
      (i < a.length && lengths[(i + 1) * width + j] >= lengths[i * width + j + 1])
    ) {
      onlyA.push(a[i++]);
    } else {
      onlyB.push(b[j++]);
    }
  }
  flush();
  return pairs;
}

// Puts different lines beside each other.
function aside(a, b) {
  const count = Math.max(a.length, b.length);
  return Array.from({ length: count }, (_, index) => [a[index] ?? null, b[index] ?? null]);
}
