// Requests to the console's HTTP interface. Each may carry the signal of the place that it is for:
// once the place is left, its responses are dropped.

// An error response; `problem` has the members of its problem details.
export class ApiError extends Error {
  constructor(problem) {
    super(problem.detail ?? problem.title ?? "the console sent an unknown response");
    this.problem = problem;
  }
}

export const get = (path, signal) => send("GET", path, { signal }).then(readJSON);
export const post = (path, body, signal) => send("POST", path, { body, signal }).then(readJSON);
export const put = (path, body, signal) => send("PUT", path, { body, signal }).then(readJSON);
export const remove = (path, signal) => send("DELETE", path, { signal }).then(readJSON);
export const getBlob = (path, signal) =>
  send("GET", path, { signal }).then(({ response }) => response.blob());
export const putBlob = (path, blob, signal) => send("PUT", path, { blob, signal }).then(readJSON);

// Whether an error only means that a response came too late for its place.
export function isLate(error) {
  return error?.name === "AbortError";
}

// Whether a request failed because the console does not run.
export function isUnreachable(error) {
  return error instanceof ApiError && error.problem.status === undefined;
}

async function send(method, path, { body, blob, signal }) {
  const options = { method, signal, headers: { Accept: "application/json" } };
  if (body !== undefined) {
    options.headers["Content-Type"] = "application/json";
    options.body = JSON.stringify(body);
  }
  if (blob) {
    options.headers["Content-Type"] = "application/zip";
    options.body = blob;
  }
  let response;
  try {
    response = await fetch(path, options);
  } catch (error) {
    if (isLate(error)) throw error;
    throw new ApiError({ detail: "the console does not respond: is it running?" });
  }
  if (!response.ok) throw new ApiError(await readProblem(response));
  return { response, signal };
}

async function readJSON({ response, signal }) {
  const text = await response.text();
  signal?.throwIfAborted();
  return parseJSON(text);
}

async function readProblem(response) {
  const { status, statusText: title } = response;
  try {
    return parseJSON(await response.text());
  } catch (error) {
    if (isLate(error)) throw error;
    return { status, title };
  }
}

// Keeps the digits of integers that a JavaScript number would round.
export function parseJSON(text) {
  return JSON.parse(text, (_key, value, context) => {
    const rounded = typeof value === "number" && !Number.isSafeInteger(value);
    return rounded && /^-?\d+$/.test(context?.source ?? "") ? new Digits(context.source) : value;
  });
}

export class Digits {
  constructor(text) {
    this.text = text;
  }
  toJSON() {
    return JSON.rawJSON ? JSON.rawJSON(this.text) : Number(this.text);
  }
}
