// Shows all chosen channels in step: one clock, the recorder's, which the first channel with a picture
// keeps while it plays, and which jumps over what no channel has.
import { api } from "./api.js";
import { ChannelPlayer, stuckMs } from "./channelPlayer.js";
import { Sound } from "./sound.js";

export const speeds = [0.5, 1, 2, 4, 8, 16];
const keysOnlyAbove = 4;     // faster than this, key pictures are enough
const liveFarMs = 3000, liveNearMs = 1000;  // behind what is there, when live
const lastMs = 500;          // before the end of what is there, where a video may stand still
const besideMs = 3000;       // on both sides of a moment, where the next picture is looked for
const stepIntoMs = 0.3;      // a moment just inside a picture, whatever the rounding

export class Player {
  // element: what the sound comes from; told(): anything has changed.
  constructor(baseMs, element, told) {
    this.baseMs = baseMs;
    this.told = told;
    this.sound = new Sound(element, baseMs, told);
    this.players = new Map();
    this.timeMs = baseMs;
    this.speed = 1;
    this.playing = false;
    this.live = false;
    this.findingNewest = false;  // going live: the time is that of the newest picture, once it is there
    this.ended = false;
    this.stoodMs = null;         // the time that does not move on, and since when
    this.stoodSince = 0;
    const tick = () => {
      this.tick();
      requestAnimationFrame(tick);
    };
    requestAnimationFrame(tick);
  }

  get keysOnly() {
    return this.speed > keysOnlyAbove;
  }

  // videos: channel number to its video element.
  setChannels(videos) {
    for (const [channel, player] of this.players) {
      if (videos.get(channel) !== player.video) {
        player.close();
        this.players.delete(channel);
      }
    }
    for (const [channel, video] of videos) {
      if (this.players.has(channel)) continue;
      const player = new ChannelPlayer(channel, video, this.baseMs, () => this.told());
      this.players.set(channel, player);
      if (this.live) player.wantLive();
      else player.want(this.timeMs, this.keysOnly);
    }
    this.players = new Map([...this.players].sort(([a], [b]) => a - b));
  }

  // True time of what is seen: of the leading channel's picture.
  get shownMs() {
    const lead = this.lead();
    return lead?.shownMs ?? this.timeMs;
  }

  lead() {
    return [...this.players.values()].find((player) => player.at(this.timeMs).kind === "ready");
  }

  seek(ms) {
    this.live = false;
    this.findingNewest = false;
    this.ended = false;
    this.timeMs = ms;
    this.sound.restart();
    for (const player of this.players.values()) player.want(ms, this.keysOnly);
    this.told();
  }

  play() {
    this.playing = true;
    this.ended = false;
    this.told();
  }

  // Where the leading video stands: it may be a picture further than it was a moment ago.
  pause() {
    const lead = this.playing ? this.lead() : undefined;
    if (lead !== undefined) {
      lead.video.pause();
      this.timeMs = Math.max(this.timeMs, this.reached(lead));
    }
    this.playing = false;
    this.live = false;
    this.findingNewest = false;
    this.told();
  }

  setSpeed(speed) {
    const before = this.keysOnly;
    this.speed = speed;
    if (before !== this.keysOnly) this.seek(this.timeMs);
    this.told();
  }

  goLive() {
    if (this.keysOnly || this.speed !== 1) this.speed = 1;
    this.live = true;
    this.playing = true;
    this.ended = false;
    this.findingNewest = true;
    this.sound.restart();
    for (const player of this.players.values()) player.wantLive();
    this.told();
  }

  // More is safe on the card.
  more(channel) {
    this.players.get(channel)?.more();
  }

  // Stands at the picture before or behind the one that is shown, on the first channel that has one.
  async step(forward) {
    const from = this.shownMs;
    this.pause();
    const stands = this.lead() !== undefined;
    const channel = this.lead()?.channel ?? this.players.keys().next().value;
    if (channel === undefined) return;
    const { pictures } = await api.pictures({ channel, from: from - besideMs, to: from + besideMs, limit: 1000 });
    const times = pictures.map((picture) => picture.timeMs).sort((a, b) => a - b);
    // Some browsers tell when the picture begins, about, others where they were sent into it.
    const shown = times.findLastIndex((ms) => ms < from + 1);
    const target = times[forward ? shown + 1 : stands ? shown - 1 : shown];
    if (target !== undefined && !this.playing) this.seek(target + stepIntoMs);
  }

  tick() {
    if (this.findingNewest) this.findNewest();
    const players = [...this.players.values()];
    const before = this.timeMs;
    if (this.playing && !this.findingNewest) this.advance(players);
    const rate = this.live ? this.liveRate() : this.speed;
    for (const player of players) player.follow(this.timeMs, rate, this.playing);
    const lead = this.playing && !this.findingNewest ? this.lead() : undefined;
    this.sound.follow(this.timeMs, rate, lead !== undefined && !lead.video.paused, this.live);
    if (this.timeMs !== before) this.told();
  }

  findNewest() {
    const starts = [...this.players.values()].filter((player) => player.known.length > 0)
      .map((player) => player.known[0].fromMs);
    if (starts.length === 0) return;
    this.timeMs = Math.max(...starts);
    this.findingNewest = false;
  }

  // Where the leading video is, within what is there: WebKit tells the end of all time as soon as what is
  // there ends, and for a while when it was sent on from there.
  reached(lead) {
    const until = lead.readyUntil(this.timeMs);
    if (lead.timeMs <= until) return lead.timeMs;
    return until - this.timeMs < lastMs ? until : this.timeMs;
  }

  advance(players) {
    const lead = this.lead();
    if (lead !== undefined) {
      const { video } = lead;
      // What the leading video shows is the time, unless it is on its way to it.
      const runs = !video.paused || video.ended;
      if (runs && !video.seeking) this.timeMs = Math.max(this.timeMs, this.reached(lead));
      if (this.live) this.catchUp(lead);
      this.moveOn(lead);
      return;
    }
    const states = players.map((player) => player.at(this.timeMs));
    if (players.length === 0 || states.some((state) => state.kind === "loading")) return;
    const next = Math.min(...states.map((state) => state.until ?? Infinity));
    if (next !== Infinity) this.timeMs = next + stepIntoMs;
    else if (!this.live) {
      this.ended = true;
      this.pause();
    }
  }

  // Where the leading video has not moved for a while: over the rest of what is there when that is
  // next to nothing, or to the same place once more.
  moveOn(lead) {
    const now = performance.now();
    if (this.timeMs !== this.stoodMs) {
      this.stoodMs = this.timeMs;
      this.stoodSince = now;
    } else if (now - this.stoodSince > stuckMs && !this.live) {
      this.stoodSince = now;
      const until = lead.readyUntil(this.timeMs);
      if (until - this.timeMs < lastMs) this.timeMs = until;
      else lead.soughtMs = null;
    }
  }

  catchUp(lead) {
    const until = lead.readyUntil(this.timeMs);
    if (until - this.timeMs > liveFarMs) this.timeMs = until - liveNearMs;
  }

  liveRate() {
    const lead = this.lead();
    if (lead === undefined) return 1;
    return lead.readyUntil(this.timeMs) - this.timeMs > liveNearMs ? 1.2 : 1;
  }
}
