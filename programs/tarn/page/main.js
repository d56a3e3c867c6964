// Puts the page together: asks what is on the card, and leads every change to all that show it.
import { api } from "./api.js";
import { CardPanel } from "./cardPanel.js";
import { Controls } from "./controls.js";
import { fillTexts, watchGo, watchTabs } from "./dialogs.js";
import { EventsPanel, LogPanel } from "./panels.js";
import { Player } from "./player.js";
import { watchSave } from "./save.js";
import { Stage } from "./stage.js";
import { strings } from "./strings.js";
import { Timeline } from "./timeline.js";
import { Zone } from "./zone.js";

const by = (id) => document.getElementById(id);
const mostTiles = 4;         // shown at first
const retryMs = 2000, cardEveryMs = 1000;
const dayMs = 86400000;

// What everything on the page shows.
const state = {
  card: null, channels: [], shown: new Set(), zone: new Zone(),
  oldestMs: 0, newestMs: 1000, nowMs: 0, timeMs: 0, playing: false, live: false, events: [],
  countEvents: () => 0, backBy: (ms) => ms,
};

let player, stage, timeline, events, log, cardPanel, controls;

function notice(text) {
  by("notice").hidden = text === null;
  by("notice").textContent = text ?? "";
}

function failed(error) {
  notice(error instanceof TypeError ? strings.unreachable : strings.refused(error.message));
}

// reveal: the timeline is to show it, wherever it stands.
function seek(ms, reveal = true) {
  const at = Math.min(Math.max(ms, state.oldestMs), state.newestMs);
  player.seek(at);
  state.timeMs = at;
  timeline.follow(at, reveal);
  history.replaceState(null, "", `#at=${Math.round(at)}`);
}

function takeCard(card) {
  state.card = card;
  state.channels = card.channels.filter((channel) => channel.recordings > 0).sort((a, b) => a.channel - b.channel);
  state.zone = new Zone(card.zoneOffsetMinutes, card.zoneChanges ?? []);
  state.nowMs = card.nowMs;
  state.oldestMs = card.oldestMs ?? card.nowMs - 1000;
  state.newestMs = Math.max(card.newestMs ?? card.nowMs, state.oldestMs + 1);
  by("card-name").textContent = strings.cardName(card.name, card.version);
  document.title = `${card.name} · ${strings.title}`;
  controls.setLivePossible(card.live);
}

function showChannels() {
  player.setChannels(stage.setChannels([...state.shown].sort((a, b) => a - b)));
  controls.setChannels();
  if (state.card.oldestMs === null) stage.say(strings.nothingYet);
  const chips = state.channels.map(({ channel }) => {
    const chip = document.createElement("button");
    chip.type = "button";
    chip.className = "chip";
    chip.dataset.channel = channel;
    chip.setAttribute("aria-pressed", String(state.shown.has(channel)));
    chip.textContent = strings.channelShort(channel);
    chip.addEventListener("click", () => {
      if (!state.shown.delete(channel)) state.shown.add(channel);
      showChannels();
      by("channels").querySelector(`[data-channel="${channel}"]`)?.focus();
    });
    return chip;
  });
  by("channels").replaceChildren(...chips);
}

// The player has come further, or something has come in.
function playerChanged() {
  state.timeMs = player.timeMs;
  state.playing = player.playing;
  state.live = player.live;
  if (state.live) state.newestMs = Math.max(state.newestMs, state.timeMs);
  timeline.follow(state.timeMs);
  stage.update(player);
  controls.update(player);
  events.step();
  log.need();
  log.step();
}

const soundOf = (channels) => channels.map(({ channel, soundCodecs }) => `${channel}: ${soundCodecs}`).join();

// Asks for the card anew, at most once a second.
let refreshing = null;
function refresh() {
  refreshing ??= setTimeout(async () => {
    refreshing = null;
    try {
      const before = state.channels.length, sound = soundOf(state.channels);
      takeCard(await api.card());
      if (sound !== soundOf(state.channels)) controls.setChannels();
      if (before !== state.channels.length) {
        for (const { channel } of state.channels) if (state.shown.size < mostTiles) state.shown.add(channel);
        showChannels();
      }
      timeline.setEnds(true);
    } catch (error) {
      failed(error);
    }
  }, cardEveryMs);
}

function listen() {
  const source = api.listen((name, told) => {
    if (name === "safe") {
      state.newestMs = Math.max(state.newestMs, told.timeMs);
      player.more(told.channel);
    }
    if (name === "recording" && told.channel !== null) player.more(told.channel);
    if (name === "event") events.need();
    refresh();
  });
  source.addEventListener("open", () => notice(null));
  source.addEventListener("error", () => notice(strings.unreachable));
}

function build() {
  stage = new Stage();
  timeline = new Timeline(state, {
    seek,
    failed,
    selected: (selection) => controls.setSelection(selection),
    viewed: () => events.need(),
  });
  const told = { seek, failed, events: (list) => { state.events = list; timeline.changed(); } };
  events = new EventsPanel(state, timeline.view, told);
  log = new LogPanel(state, told);
  cardPanel = new CardPanel(state, told);
  state.countEvents = (from, to) => timeline.data.countEvents(from, to);
  state.backBy = (ms, count) => timeline.data.backBy(ms, count);
  watchTabs(() => {
    log.need(true);
    cardPanel.need();
  });
}

// The moment that the address names, or the newest picture's last second.
function firstMoment() {
  const named = Number(/^#at=(-?\d+)$/.exec(location.hash)?.[1] ?? NaN);
  return Number.isNaN(named) ? Math.max(state.oldestMs, state.newestMs - 1000) : named;
}

async function start() {
  fillTexts();
  notice(strings.loading);
  let card = null;
  while (card === null) {
    try {
      card = await api.card();
    } catch (error) {
      failed(error);
      await new Promise((resolve) => setTimeout(resolve, retryMs));
    }
  }
  notice(null);
  build();
  controls = new Controls(state, timeline, stage, { seek, failed, go: watchGo(state, seek), save: watchSave(state, timeline) });
  takeCard(card);
  // A day before the oldest picture: the media source knows no time before its base.
  player = new Player(Math.floor((state.oldestMs - dayMs) / 1000) * 1000, by("heard"), playerChanged);
  controls.player = player;
  for (const { channel } of state.channels.slice(0, mostTiles)) state.shown.add(channel);
  timeline.showAll();
  timeline.setEnds(false);
  player.seek(firstMoment());
  showChannels();
  listen();
  document.body.dataset.ready = "yes";
}

start();
