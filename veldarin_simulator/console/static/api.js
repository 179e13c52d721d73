// The console's interface, as the page uses it: JSON there and back.

// A request that was refused; `about` is the interface's description of why.
export class Refused extends Error {
  constructor(about) {
    super(about.problem);
    this.about = about;
  }
}

export const get = (path) => asked("GET", path);
export const post = (path, body) => asked("POST", path, body);

async function asked(method, path, body) {
  const settings = { method, headers: { Accept: "application/json" } };
  if (body !== undefined) {
    settings.headers["Content-Type"] = "application/json";
    settings.body = JSON.stringify(body);
  }
  let response;
  try {
    response = await fetch(path, settings);
  } catch {
    throw new Refused({ problem: "the console does not answer: is it running?" });
  }
  const answered = parsed(await response.text());
  if (!response.ok) throw new Refused(answered.error);
  return answered;
}

// A number that this language would round stays its digits.
function parsed(text) {
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
