// The dialogs: a time to go to, the keys. And the tabs beside the video.
import { keys, strings } from "./strings.js";

const by = (id) => document.getElementById(id);

// Texts of the elements that index.html names.
export function fillTexts() {
  for (const element of document.querySelectorAll("[data-text]")) element.textContent = strings[element.dataset.text];
  for (const element of document.querySelectorAll("[data-label]")) {
    element.setAttribute("aria-label", strings[element.dataset.label]);
    if (element.tagName === "BUTTON") element.title = strings[element.dataset.label];
  }
  for (const element of document.querySelectorAll("[data-tip]")) element.title = strings[element.dataset.tip];
  by("live").title = strings.liveTip;
  const list = by("keys").querySelector("dl");
  for (const [names, text] of keys) {
    const term = document.createElement("dt"), said = document.createElement("dd");
    for (const name of names.split(/ +/)) {
      const key = document.createElement("kbd");
      key.textContent = name;
      term.append(key, " ");
    }
    said.textContent = text;
    list.append(term, said);
  }
}

// shown(panel): its tab was chosen.
export function watchTabs(shown) {
  const tabs = [...document.querySelectorAll("[role=tab]")];
  const choose = (tab) => {
    for (const other of tabs) {
      const chosen = other === tab;
      other.setAttribute("aria-selected", String(chosen));
      other.tabIndex = chosen ? 0 : -1;
      by(other.getAttribute("aria-controls")).hidden = !chosen;
    }
    shown(by(tab.getAttribute("aria-controls")));
  };
  tabs.forEach((tab, i) => {
    tab.addEventListener("click", () => choose(tab));
    tab.addEventListener("keydown", (event) => {
      const step = { ArrowLeft: -1, ArrowRight: 1 }[event.key];
      if (step === undefined) return;
      event.preventDefault();
      event.stopPropagation();
      const next = tabs[(i + step + tabs.length) % tabs.length];
      next.focus();
      choose(next);
    });
  });
}

export function watchGo(state, seek) {
  const dialog = by("go"), input = by("go-time");
  dialog.addEventListener("close", () => {
    const ms = state.zone.fromInput(input.value);
    if (dialog.returnValue === "go" && !Number.isNaN(ms)) seek(ms);
  });
  return () => {
    input.value = state.zone.inputValue(state.timeMs);
    dialog.returnValue = "";
    dialog.showModal();
  };
}
