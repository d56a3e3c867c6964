// The tiles in which the channels' videos are shown, and what is said over them.
import { strings } from "./strings.js";

export class Stage {
  constructor() {
    this.section = document.getElementById("stage");
    this.tiles = new Map();
  }

  // Channel numbers; gives the video of each.
  setChannels(numbers) {
    for (const [number, tile] of this.tiles) {
      if (numbers.includes(number)) continue;
      tile.figure.remove();
      this.tiles.delete(number);
    }
    for (const number of numbers) {
      if (!this.tiles.has(number)) this.tiles.set(number, this.tile(number));
    }
    const sorted = [...numbers].sort((a, b) => a - b);
    this.section.append(...sorted.map((number) => this.tiles.get(number).figure));
    this.section.dataset.tiles = String(sorted.length);
    this.say(sorted.length === 0 ? strings.noChannel : null);
    return new Map(sorted.map((number) => [number, this.tiles.get(number).video]));
  }

  tile(number) {
    const figure = document.createElement("figure");
    const video = document.createElement("video");
    video.muted = true;
    video.playsInline = true;
    video.disablePictureInPicture = true;
    video.tabIndex = -1;
    video.setAttribute("aria-label", strings.video(number));
    const caption = document.createElement("figcaption");
    caption.textContent = strings.channelName(number);
    const note = document.createElement("p");
    note.className = "note";
    note.hidden = true;
    figure.append(video, caption, note);
    return { figure, video, note };
  }

  // A text in place of the tiles; null: none.
  say(text) {
    this.section.querySelector(":scope > .note")?.remove();
    if (text === null) return;
    const note = document.createElement("p");
    note.className = "note";
    note.textContent = text;
    this.section.append(note);
  }

  // What each channel has at the moment that is shown.
  update(player) {
    for (const [number, tile] of this.tiles) {
      const channel = player.players.get(number);
      if (channel === undefined) continue;
      const { kind } = channel.at(player.timeMs);
      const text = this.noteFor(channel, kind);
      const empty = kind === "gap" || kind === "end";
      tile.figure.classList.toggle("empty", empty || (kind === "loading" && channel.shownMs === null));
      tile.figure.classList.toggle("waiting", kind === "loading");
      if (tile.note.textContent !== text) tile.note.textContent = text;
      tile.note.hidden = text === "";
    }
  }

  noteFor(channel, kind) {
    if (channel.problem === "cannotDecode") return strings.cannotDecode;
    if (channel.refusal !== null) return strings.refused(channel.refusal);
    if (kind === "gap" || kind === "end") {
      return channel.problem === "pieceMissing" ? strings.pieceMissing : strings.nothingHere;
    }
    return "";
  }

  wholeScreen() {
    if (document.fullscreenElement !== null) document.exitFullscreen();
    else this.section.requestFullscreen?.().catch(() => {});
  }
}
