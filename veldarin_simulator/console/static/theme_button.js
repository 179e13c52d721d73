// The button that changes the colors.

const THEMES = ["auto", "light", "dark"];
const LABELS = { auto: "◐ Auto", light: "○ Light", dark: "● Dark" };
const root = document.documentElement;

export function followTheme(button) {
  const show = () => {
    const theme = root.dataset.theme ?? "auto";
    button.textContent = LABELS[theme];
    button.setAttribute("aria-label", `Colors: ${theme}`);
  };
  button.addEventListener("click", () => {
    const next = THEMES[(THEMES.indexOf(root.dataset.theme ?? "auto") + 1) % THEMES.length];
    if (next === "auto") delete root.dataset.theme;
    else root.dataset.theme = next;
    try {
      localStorage.setItem("theme", next);
    } catch {
      // Storage is disabled: the theme lasts until the page is reloaded.
    }
    show();
  });
  show();
}
