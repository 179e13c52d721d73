// Elements made from data: text is always text, so nothing that a device says becomes markup.

// An element. Attributes: a function is a listener, true a bare attribute, null and false none.
export function make(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (value === null || value === undefined || value === false) continue;
    if (typeof value === "function") element.addEventListener(name, value);
    else element.setAttribute(name, value === true ? "" : value);
  }
  element.append(...children.flat(Infinity).filter((child) => child !== null && child !== undefined));
  return element;
}

export function replace(element, ...children) {
  element.replaceChildren(...children.flat(Infinity).filter((child) => child !== null));
  return element;
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
    group.append(
      make(
        "button",
        {
          type: "button",
          "data-value": own,
          click: () => {
            press(own);
            chosen(own);
          },
        },
        text,
      ),
    );
  }
  press(value);
  return group;
}

// Where an answer came from, as a small label.
export function badge(source) {
  const kind = source.includes("+") ? "both" : source.replace(" ", "-");
  return make("span", { class: `badge badge-${kind}` }, source);
}
