// Elements made from data: text is always text, so nothing that a device says becomes markup.

// An element. Attributes: a function is a listener, true a bare attribute, null and false none.
export function make(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (value === null || value === undefined || value === false) continue;
    if (typeof value === "function") element.addEventListener(name, value);
    else element.setAttribute(name, value === true ? "" : value);
  }
  element.append(...some(children));
  return element;
}

export function replace(element, ...children) {
  element.replaceChildren(...some(children));
  return element;
}

function some(children) {
  return children.flat(Infinity).filter((child) => child !== null && child !== undefined);
}

// A framed part of the page: its name for those who listen, its title, what stands beside that.
export function panel({ label, title, kind = "", beside = [] }, ...children) {
  const heading = make("header", {}, make("h2", {}, title), beside);
  return make("section", { class: `panel ${kind}`.trim(), "aria-label": label }, heading, children);
}

// In place of what is not there yet.
export function nothing(text, ...hint) {
  return make("div", { class: "empty" }, make("p", {}, text), make("p", { class: "hint" }, hint));
}

export function hint(...children) {
  return make("p", { class: "hint" }, children);
}

// A field for one line of a program's text: no browser shall correct it.
export function field(label, attributes = {}) {
  const plain = { type: "text", autocomplete: "off", autocapitalize: "off", spellcheck: "false" };
  return make("input", { ...plain, "aria-label": label, ...attributes });
}

// The same for many lines.
export function area(label, attributes = {}) {
  const plain = { wrap: "off", autocomplete: "off", autocapitalize: "off", spellcheck: "false" };
  return make("textarea", { ...plain, "aria-label": label, ...attributes });
}

// Told to who listens rather than looks.
export function say(text) {
  document.getElementById("said").textContent = text;
}

// A button that copies what `text` gives.
export function copyButton(text) {
  const button = make("button", { type: "button", class: "quiet" }, "Copy");
  button.addEventListener("click", async () => {
    try {
      await navigator.clipboard.writeText(text());
      button.textContent = "Copied";
    } catch {
      button.textContent = "Not allowed";
    }
    setTimeout(() => (button.textContent = "Copy"), 1500);
  });
  return button;
}

// Buttons of which one is pressed: [[label, value], ...]; `chosen(value)` is called on a change.
export function segments(label, choices, value, chosen) {
  const group = make("div", { class: "segments", role: "group", "aria-label": label });
  const press = (wanted) => {
    for (const button of group.children) {
      button.setAttribute("aria-pressed", String(button.dataset.value === wanted));
    }
  };
  for (const [text, own] of choices) {
    const click = () => {
      press(own);
      chosen(own);
    };
    group.append(make("button", { type: "button", "data-value": own, click }, text));
  }
  press(value);
  return group;
}

// Where an answer came from, or what it is, as a small label.
export function badge(text, kind = text.includes("+") ? "both" : text.replace(" ", "-")) {
  return make("span", { class: `badge badge-${kind}` }, text);
}

// A long name may be broken after its underscores.
export function breakable(name) {
  return name.split(/(?<=_)/).flatMap((part) => [part, make("wbr")]);
}
