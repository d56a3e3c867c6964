// The dialogs: a time to go to, what is to be downloaded, the keys. And the tabs beside the video.
import { api } from "./api.js";
import { keys, strings } from "./strings.js";

const longestSaveMs = 86400000;
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

function startDownload(address) {
  const link = document.createElement("a");
  link.href = address;
  link.download = "";
  document.body.append(link);
  link.click();
  link.remove();
}

// timeline: whose selection is downloaded.
export function watchSave(state, timeline) {
  const dialog = by("save"), choice = by("save-channel");
  dialog.addEventListener("close", () => {
    const { selection } = timeline;
    if (dialog.returnValue !== "save" || selection === null) return;
    startDownload(api.exportAddress(choice.value, Math.round(selection.from), Math.round(selection.to)));
  });
  return () => {
    const { selection } = timeline;
    if (selection === null) return;
    const { zone } = state;
    const tooLong = selection.to - selection.from > longestSaveMs;
    by("save-range").textContent = strings.saveRange(zone.dateTime(selection.from, 1), zone.dateTime(selection.to, 1),
      strings.length(selection.to - selection.from));
    by("save-note").textContent = tooLong ? strings.saveTooLong : strings.saveNote;
    dialog.querySelector("[value=save]").disabled = tooLong;
    choice.replaceChildren(...state.channels.map(({ channel }) => new Option(strings.channelName(channel), channel)));
    dialog.returnValue = "";
    dialog.showModal();
  };
}
