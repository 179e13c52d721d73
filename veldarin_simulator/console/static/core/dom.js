// Builds elements. Strings become text nodes, so device output never becomes markup.

// el("p.hint", { id: "x" }, children...): attributes are optional. A function is an event listener,
// true an attribute without a value; null, undefined and false leave the attribute out.
export function el(selector, ...children) {
  const [tag, ...classes] = selector.split(".");
  const element = document.createElement(tag);
  if (classes.length) element.className = classes.join(" ");
  if (children[0]?.constructor === Object) setAttributes(element, children.shift());
  return children.length ? replace(element, children) : element;
}

// The same for SVG.
export function svg(selector, attributes, ...children) {
  const [tag, ...classes] = selector.split(".");
  const element = document.createElementNS("http://www.w3.org/2000/svg", tag);
  if (classes.length) element.setAttribute("class", classes.join(" "));
  setAttributes(element, attributes);
  return replace(element, children);
}

export function setAttributes(element, attributes) {
  for (const [name, value] of Object.entries(attributes)) {
    if (value === null || value === undefined || value === false) element.removeAttribute(name);
    else if (typeof value === "function") element.addEventListener(name, value);
    else element.setAttribute(name, value === true ? "" : value);
  }
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

export function note(text) {
  return el("span.note", text);
}

const VERBATIM = { autocomplete: "off", autocapitalize: "off", spellcheck: "false" };

export function field(label, attributes = {}) {
  return el("input", { type: "text", ...VERBATIM, "aria-label": label, ...attributes });
}

export function area(label, attributes = {}) {
  return el("textarea", { wrap: "off", ...VERBATIM, "aria-label": label, ...attributes });
}

export function button(label, click, selector = "button", attributes = {}) {
  return el(selector, { type: "button", click, ...attributes }, label);
}

export function inlineForm(input, label, selector, onSubmit) {
  const submit = (event) => {
    event.preventDefault();
    onSubmit(input.value.trim());
  };
  return el("form.inline", { submit }, input, el(selector, { type: "submit" }, label));
}

// Announces a text to screen readers.
export function announce(text) {
  document.getElementById("status").textContent = text;
}

// A button that copies the return value of `text`.
export function copyButton(text, label = "Copy", selector = "button.quiet") {
  const copy = button(
    label,
    async () => {
      try {
        await navigator.clipboard.writeText(await text());
        copy.textContent = "Copied";
      } catch {
        copy.textContent = "Not allowed";
      }
      setTimeout(() => (copy.textContent = label), 1500);
    },
    selector,
    { "data-stays": true },
  );
  return copy;
}

// A button that opens a list of buttons. Escape, a click elsewhere and a choice close it, but for a
// choice that shows in the list that it was carried out.
export function menu(label, items, name = null) {
  const choose = (event) => {
    if (event.target.closest("button:not([data-stays])")) element.open = false;
  };
  const body = el("div.menu-items", { click: choose }, items);
  const summary = el("summary", { "aria-label": name }, label);
  const element = el("details.menu", summary, body);
  const close = (event) => {
    if (event.type === "keydown" ? event.key !== "Escape" : element.contains(event.target)) return;
    element.open = false;
    if (event.type === "keydown") summary.focus();
  };
  element.addEventListener("toggle", () => {
    const change = element.open ? "addEventListener" : "removeEventListener";
    document[change]("pointerdown", close);
    document[change]("keydown", close);
    if (element.open) body.classList.toggle("to-left", element.offsetLeft > innerWidth / 2);
  });
  return element;
}

// Buttons of which one is pressed. `choices` are [label, value]; a change calls `onChange(value)`.
export function segments(label, choices, value, onChange) {
  const group = el("div.segments", { role: "group", "aria-label": label });
  const press = (pressed) => {
    for (const one of group.children) {
      one.setAttribute("aria-pressed", String(one.dataset.value === String(pressed)));
    }
  };
  for (const [text, own] of choices) {
    const choose = () => {
      press(own);
      onChange(own);
    };
    group.append(button(text, choose, "button", { "data-value": String(own) }));
  }
  group.press = press;
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

// Calls `action` once the calls of the returned function have paused.
export function debounce(action, milliseconds) {
  let timer = 0;
  return (...values) => {
    clearTimeout(timer);
    timer = setTimeout(action, milliseconds, ...values);
  };
}
