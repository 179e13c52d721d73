// Requests to the console's HTTP interface.

// An error response; `problem` has the members of its problem details.
export class ApiError extends Error {
  constructor(problem) {
    super(problem.detail);
    this.problem = problem;
  }
}

export const get = (path) => request("GET", path);
export const post = (path, body) => request("POST", path, body);
export const put = (path, body) => request("PUT", path, body);
export const remove = (path) => request("DELETE", path);

async function request(method, path, body) {
  const options = { method, headers: { Accept: "application/json" } };
  if (body !== undefined) {
    options.headers["Content-Type"] = "application/json";
    options.body = JSON.stringify(body);
  }
  let response;
  try {
    response = await fetch(path, options);
  } catch {
    throw new ApiError({ detail: "the console does not respond: is it running?" });
  }
  const parsed = parse(await response.text());
  if (!response.ok) throw new ApiError(parsed);
  return parsed;
}

// Keeps the digits of integers that a JavaScript number would round.
function parse(text) {
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
