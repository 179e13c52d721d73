// The colours that the person chose, before the page is painted. For console.html.
"use strict";

(() => {
  const root = document.documentElement;
  const kept = () => {
    try {
      return localStorage.getItem("theme");
    } catch {
      return null; // storage is withheld: the system's colours
    }
  };
  const chosen = kept();
  if (chosen === "light" || chosen === "dark") root.dataset.theme = chosen;
})();
