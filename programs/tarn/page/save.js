// The dialog of what is to be kept: a movie that is sent at once, or what the server has to make first.
import { api } from "./api.js";
import { strings } from "./strings.js";

const longestMs = 86400000;
const askEveryMs = 500;
const by = (id) => document.getElementById(id);

function startDownload(address) {
  const link = document.createElement("a");
  link.href = address;
  link.download = "";
  document.body.append(link);
  link.click();
  link.remove();
}

class SaveDialog {
  // timeline: whose selection is saved.
  constructor(state, timeline) {
    Object.assign(this, { state, timeline, making: null });
    this.dialog = by("save");
    this.kind = by("save-kind");
    this.choice = by("save-channel");
    this.button = this.dialog.querySelector("[value=save]");
    this.kind.addEventListener("change", () => this.choose());
    this.dialog.querySelector("form").addEventListener("submit", (event) => this.submit(event));
    this.dialog.addEventListener("close", () => this.giveUp());
  }

  get question() {
    const { selection } = this.timeline;
    return { kind: this.kind.value, channel: this.choice.value === "" ? null : this.choice.value,
      from: Math.round(selection.from), to: Math.round(selection.to) };
  }

  show() {
    const { selection } = this.timeline, { zone, card } = this.state;
    if (selection === null) return;
    by("save-range").textContent = strings.saveRange(zone.dateTime(selection.from, 1), zone.dateTime(selection.to, 1),
      strings.length(selection.to - selection.from));
    this.kind.disabled = !card.downloads;
    by("save-progress").textContent = "";
    this.choose();
    this.dialog.returnValue = "";
    this.dialog.showModal();
  }

  choose() {
    const { selection } = this.timeline, { card, channels } = this.state;
    const tooLong = selection.to - selection.from > longestMs;
    const { [this.kind.value]: note } = strings.saveNote;
    by("save-note").textContent = tooLong ? strings.saveTooLong : card.seals ? `${note} ${strings.saveSealed}` : note;
    this.button.disabled = tooLong;
    const options = channels.map(({ channel }) => new Option(strings.channelName(channel), channel));
    if (this.kind.value === "evidence") options.unshift(new Option(strings.allChannels, ""));
    this.choice.replaceChildren(...options);
  }

  submit(event) {
    if (event.submitter?.value !== "save") return;
    const { question } = this;
    if (question.kind === "movie" && !this.state.card.seals) {
      startDownload(api.exportAddress(question.channel, question.from, question.to));
      return;
    }
    event.preventDefault();
    this.make(question);
  }

  // Stays open until it is made; whoever closes it wants it no more.
  async make(question) {
    const making = this.making = { id: null };
    this.button.disabled = true;
    this.say(strings.saveBegins);
    try {
      let told = await api.beginDownload(question);
      for (making.id = told.id; told.state === "making" && this.making === making; told = await api.download(told.id)) {
        if (told.pieces > 0) this.say(strings.saveMakes(told.pieces));
        await new Promise((resolve) => setTimeout(resolve, askEveryMs));
      }
      if (this.making !== making) api.giveUpDownload(told.id).catch(() => {});
      else this.made(told);
    } catch (error) {
      if (this.making === making) this.say(strings.refused(error.message));
    }
    if (this.making === making) this.making = null;
    this.button.disabled = false;
  }

  made(told) {
    if (told.state === "failed") {
      this.say(strings.refused(told.error));
      return;
    }
    this.say(told.missing.length > 0 ? strings.saveLacks(told.missing) : strings.saveMade);
    this.making = null;
    startDownload(api.downloadAddress(told.id));
    if (told.missing.length === 0) this.dialog.close();
  }

  giveUp() {
    this.making = null;
  }

  say(text) {
    by("save-progress").textContent = text;
  }
}

export function watchSave(state, timeline) {
  const dialog = new SaveDialog(state, timeline);
  return () => dialog.show();
}
