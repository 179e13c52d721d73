// Addresses of the page: #/section/name?parameters.
import { parseJSON } from "./api.js";

export function readAddress() {
  const [path, query = ""] = splitOnce(location.hash, "?");
  const [, section = "", ...rest] = path.split("/");
  const name = rest.length ? decode(rest.join("/")) : null;
  return { section, name, parameters: new URLSearchParams(query) };
}

// The address of a call. `extra` are further parameters.
export function callAddress(section, name, body, extra = {}) {
  const { arguments: positional = [], keywords = {} } = body ?? {};
  const parameters = new URLSearchParams();
  const named = Object.keys(keywords).length > 0;
  if (positional.length || (body && !named)) set(parameters, "arguments", positional);
  if (named) set(parameters, "keywords", keywords);
  for (const [key, value] of Object.entries(extra)) parameters.set(key, value);
  const query = parameters.size ? `?${parameters}` : "";
  return `#/${section}/${encodeURIComponent(name)}${query}`;
}

// The call's body, or null if the address has none. Throws `SyntaxError`.
export function bodyOf(parameters) {
  if (!parameters.has("arguments") && !parameters.has("keywords")) return null;
  const positional = parseJSON(parameters.get("arguments") ?? "[]");
  const keywords = parseJSON(parameters.get("keywords") ?? "{}");
  if (!Array.isArray(positional) || keywords?.constructor !== Object) {
    throw new SyntaxError("expected a list of arguments and an object of keywords");
  }
  return { arguments: positional, keywords };
}

// Changes the address without leaving the page. An entry of the window's history that holds a call
// keeps its address, so that Back returns to it.
export function changeAddress(address) {
  if (location.hash === address) return;
  history[history.state?.call ? "pushState" : "replaceState"]({}, "", address);
}

function set(parameters, key, value) {
  parameters.set(key, JSON.stringify(value));
}

function splitOnce(text, separator) {
  const at = text.indexOf(separator);
  return at < 0 ? [text] : [text.slice(0, at), text.slice(at + 1)];
}

function decode(text) {
  try {
    return decodeURIComponent(text);
  } catch {
    return text;
  }
}
