// Applies the chosen theme before the first paint.
"use strict";

try {
  const theme = localStorage.getItem("theme");
  if (theme === "light" || theme === "dark") document.documentElement.dataset.theme = theme;
} catch {
  // Storage is disabled: the system's theme.
}
