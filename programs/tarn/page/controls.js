// Buttons and keys.
import { api } from "./api.js";
import { speeds } from "./player.js";
import { notPlayed, played } from "./sound.js";
import { strings } from "./strings.js";

const by = (id) => document.getElementById(id);
const keyZoom = 1.6;
const keySeekMs = 5000;
const keyVolume = 0.1;
const mostEvents = 1000;
const eventSearchMs = [3600000, 86400000, 40 * 86400000];  // how far back one is looked for, in turn

export class Controls {
  // told: {seek(ms, reveal), failed(error), go(), save()}.
  constructor(state, timeline, stage, told) {
    Object.assign(this, { state, timeline, stage, told, player: null });
    this.speed = by("speed");
    for (const speed of speeds) this.speed.append(new Option(strings.speedName(speed), speed, speed === 1, speed === 1));
    this.watchButtons();
    addEventListener("keydown", (event) => this.key(event));
  }

  watchButtons() {
    const actions = {
      "play": () => this.toggle(), "step-back": () => this.step(false), "step-forward": () => this.step(true),
      "previous-event": () => this.event(false), "next-event": () => this.event(true),
      "live": () => this.live(), "clock": () => this.told.go(), "help": () => by("keys").showModal(),
      "select": () => this.setSelecting(!this.timeline.selecting),
      "clear-selection": () => this.clearSelection(), "download": () => this.told.save(),
      "whole": () => this.timeline.showAll(), "zoom-in": () => this.timeline.zoom(1 / 2),
      "zoom-out": () => this.timeline.zoom(2), "mute": () => this.mute(),
    };
    for (const [id, act] of Object.entries(actions)) by(id).addEventListener("click", act);
    this.speed.addEventListener("change", () => this.player.setSpeed(Number(this.speed.value)));
    by("volume").addEventListener("input", () => this.setVolume(Number(by("volume").value) / 100));
    by("sound-channel").addEventListener("change", () => this.player.sound.setChannel(Number(by("sound-channel").value)));
  }

  toggle() {
    if (this.player.playing) this.player.pause();
    else if (this.player.ended) this.seekAndPlay(this.state.oldestMs);
    else this.player.play();
  }

  seekAndPlay(ms) {
    this.told.seek(ms, true);
    this.player.play();
  }

  step(forward) {
    this.player.step(forward).catch(this.told.failed);
  }

  live() {
    if (this.player.live) this.player.pause();
    else if (this.state.card.live) {
      this.player.goLive();
      this.timeline.follow(this.state.newestMs, true);
    }
  }

  // Goes to the event before or behind the moment that is shown.
  async event(forward) {
    const at = this.state.timeMs;
    try {
      const ms = forward ? await this.eventBehind(at) : await this.eventBefore(at);
      if (ms === undefined) this.say(strings.noEvent);
      else this.told.seek(ms, true);
    } catch (error) {
      this.told.failed(error);
    }
  }

  async eventBehind(at) {
    const { events } = await api.events({ from: Math.ceil(at + 1), to: this.state.newestMs + 1, limit: 50 });
    return events.map((event) => event.startMs).find((ms) => ms > at + 1);
  }

  async eventBefore(at) {
    for (const reach of eventSearchMs) {
      let cursor, last;
      do {
        const page = await api.events({ from: Math.floor(at - reach), to: Math.floor(at), limit: mostEvents, cursor });
        last = page.events.map((event) => event.startMs).findLast((ms) => ms < at - 500) ?? last;
        cursor = page.next;
      } while (cursor !== null);
      if (last !== undefined) return last;
    }
    return undefined;
  }

  say(text) {
    by("selected").textContent = text;
    setTimeout(() => this.setSelection(this.timeline.selection), 2000);
  }

  setLivePossible(possible) {
    by("live").disabled = !possible;
    by("live").title = possible ? strings.liveTip : strings.notLive;
  }

  update(player) {
    const { zone } = this.state;
    const ms = player.shownMs;
    by("clock-date").textContent = zone.date(ms);
    by("clock-time").textContent = zone.time(ms, 3);
    by("clock-zone").textContent = zone.offset(ms);
    by("clock").dataset.ms = String(ms);
    const play = by("play"), label = player.playing ? strings.pause : strings.play;
    if (play.title !== label) {
      play.title = label;
      play.setAttribute("aria-label", label);
      play.classList.toggle("playing", player.playing);
    }
    by("live").setAttribute("aria-pressed", String(player.live));
    if (Number(this.speed.value) !== player.speed) this.speed.value = String(player.speed);
  }

  // Sound: of one of the channels that are shown, the first unless another one is chosen.

  setChannels() {
    const shown = this.state.channels.filter(({ channel }) => this.state.shown.has(channel));
    const heard = shown.filter(({ soundCodecs }) => played(soundCodecs).length > 0).map(({ channel }) => channel);
    const { sound } = this.player, choice = by("sound-channel");
    sound.setChannel(heard.includes(sound.channel) ? sound.channel : heard[0] ?? null);
    choice.replaceChildren(...heard.map((channel) => new Option(strings.channelShort(channel), channel)));
    choice.value = String(sound.channel);
    choice.hidden = heard.length < 2;
    by("mute").disabled = by("volume").disabled = heard.length === 0;
    by("sound").title = heard.length === 0 ? strings.noSound : "";
    const left = shown.filter(({ soundCodecs }) => notPlayed(soundCodecs).length > 0);
    const codecs = new Set(left.flatMap(({ soundCodecs }) => notPlayed(soundCodecs)).map(strings.codecName));
    by("sound-note").hidden = left.length === 0;
    by("sound-note").textContent = left.length === 0 ? "" : strings.soundNotPlayed(
      left.map(({ channel }) => strings.channelShort(channel)).join(", "), [...codecs].join(", "));
  }

  mute() {
    const { sound } = this.player;
    if (by("mute").disabled) return;
    sound.setMuted(!sound.muted);
    by("mute").setAttribute("aria-pressed", String(sound.muted));
  }

  setVolume(volume) {
    const { sound } = this.player;
    sound.volume = volume;
    by("volume").value = String(Math.round(sound.volume * 100));
    if (sound.muted) this.mute();
  }

  // The selection.

  setSelecting(on) {
    this.timeline.selecting = on;
    by("select").setAttribute("aria-pressed", String(on));
    this.setSelection(this.timeline.selection);
  }

  setSelection(selection) {
    by("selected").textContent = selection !== null ? strings.length(selection.to - selection.from)
      : this.timeline.selecting ? strings.selectHint : "";
    by("clear-selection").hidden = selection === null;
    by("download").disabled = selection === null;
  }

  clearSelection() {
    this.setSelecting(false);
    this.timeline.select(null);
  }

  // One end at the moment that is shown; the other stays, or is a little further.
  selectHere(isBegin) {
    const { timeMs } = this.state, { selection } = this.timeline;
    const other = selection === null ? timeMs + (isBegin ? 10000 : -10000) : isBegin ? selection.to : selection.from;
    this.timeline.select({ from: Math.min(timeMs, other), to: Math.max(timeMs, other) });
  }

  // Keys.

  key(event) {
    if (event.ctrlKey || event.metaKey || event.altKey || document.querySelector("dialog[open]") !== null) return;
    const { target } = event;
    if (target.closest("input, select, textarea")) return;
    // A button that has the focus is pressed by these.
    if ((event.key === " " || event.key === "Enter") && target.closest("button")) return;
    const act = this.actionOf(event);
    if (act === undefined) return;
    event.preventDefault();
    act();
  }

  actionOf(event) {
    const { timeline, state } = this;
    const inList = event.target.closest(".panel") !== null;
    if (inList && ["ArrowUp", "ArrowDown", "Home", "End", " "].includes(event.key)) return undefined;
    const seekBy = (ms) => () => this.told.seek(state.timeMs + ms, true);
    const pan = (share) => () => {
      timeline.view.move(timeline.view.span * share);
      timeline.moved();
    };
    return {
      " ": () => this.toggle(), "k": () => this.toggle(),
      ",": () => this.step(false), ".": () => this.step(true),
      "+": () => timeline.zoom(1 / keyZoom), "=": () => timeline.zoom(1 / keyZoom), "-": () => timeline.zoom(keyZoom),
      "ArrowLeft": event.shiftKey ? pan(-0.2) : seekBy(-keySeekMs),
      "ArrowRight": event.shiftKey ? pan(0.2) : seekBy(keySeekMs),
      "Home": () => this.told.seek(state.oldestMs, true), "End": () => this.told.seek(state.newestMs - 100, true),
      "p": () => this.event(false), "n": () => this.event(true),
      "m": () => this.mute(),
      "ArrowUp": event.shiftKey ? () => this.setVolume(this.player.sound.volume + keyVolume) : undefined,
      "ArrowDown": event.shiftKey ? () => this.setVolume(this.player.sound.volume - keyVolume) : undefined,
      "<": () => this.changeSpeed(-1), ">": () => this.changeSpeed(1),
      "[": () => this.selectHere(true), "]": () => this.selectHere(false), "Escape": () => this.clearSelection(),
      "d": () => this.told.save(), "l": () => this.live(), "0": () => timeline.showAll(),
      "g": () => this.told.go(), "f": () => this.stage.wholeScreen(), "?": () => by("keys").showModal(),
    }[event.key.length === 1 ? event.key.toLowerCase() : event.key];
  }

  changeSpeed(step) {
    const at = speeds.indexOf(this.player.speed) + step;
    if (at >= 0 && at < speeds.length) this.player.setSpeed(speeds[at]);
  }
}
