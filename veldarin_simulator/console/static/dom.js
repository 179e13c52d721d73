// Builds elements. Strings become text nodes, so device output never becomes markup.

// el("p.hint", { id: "x" }, children...): attributes are optional. A function is an event listener,
// true an attribute without a value; null, undefined and false leave the attribute out.
export function el(selector, ...children) {
  const [tag, ...classes] = selector.split(".");
  const element = document.createElement(tag);
  if (classes.length) element.className = classes.join(" ");
  const attributes = children[0]?.constructor === Object ? children.shift() : {};
  for (const [name, value] of Object.entries(attributes)) {
    if (value === null || value === undefined || value === false) continue;
    if (typeof value === "function") element.addEventListener(name, value);
    else element.setAttribute(name, value === true ? "" : value);
  }
  return replace(element, children);
}

export function replace(element, ...children) {
  element.replaceChildren(...children.flat(Infinity).filter((child) => child ?? false));
  return element;
}

export function panel({ label, title, kind = "", beside = [] }, ...children) {
  const header = el("header", el("h2", title), beside);
  return el(`section.panel${kind && `.${kind}`}`, { "aria-label": label }, header, children);
}

export function pageTitle(title, summary) {
  return el("header.title", el("h1.plain", title), el("p.summary", summary));
}

export function emptyState(text, ...hints) {
  return el("div.empty", el("p", text), hint(hints));
}

export function hint(...children) {
  return el("p.hint", children);
}

const VERBATIM = { autocomplete: "off", autocapitalize: "off", spellcheck: "false" };

export function field(label, attributes = {}) {
  return el("input", { type: "text", ...VERBATIM, "aria-label": label, ...attributes });
}

export function area(label, attributes = {}) {
  return el("textarea", { wrap: "off", ...VERBATIM, "aria-label": label, ...attributes });
}

// Announces a text to screen readers.
export function announce(text) {
  document.getElementById("status").textContent = text;
}

// A button that copies the return value of `text`.
export function copyButton(text) {
  const button = el("button.quiet", { type: "button" }, "Copy");
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

// Buttons of which one is pressed. `choices` are [label, value]; a change calls `onChange(value)`.
export function segments(label, choices, value, onChange) {
  const group = el("div.segments", { role: "group", "aria-label": label });
  const press = (pressed) => {
    for (const button of group.children) {
      button.setAttribute("aria-pressed", String(button.dataset.value === pressed));
    }
  };
  for (const [text, own] of choices) {
    const click = () => {
      press(own);
      onChange(own);
    };
    group.append(el("button", { type: "button", "data-value": own, click }, text));
  }
  press(value);
  return group;
}

export function badge(text, kind = text.includes("+") ? "both" : text.replace(" ", "-")) {
  return el(`span.badge.badge-${kind}`, text);
}

// Allows line breaks after underscores.
export function breakable(name) {
  return name.split(/(?<=_)/).flatMap((part) => [part, el("wbr")]);
}
