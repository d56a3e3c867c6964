// The sound of one of the channels that are shown. The pictures lead: it never makes them wait, and where
// none was recorded nothing is heard.
import { ChannelPlayer } from "./channelPlayer.js";

const fastest = 2;           // faster than this nobody understands a word
const askEveryMs = 500;      // for what has become safe, when live
const nearEndMs = 1500;

// Codecs that browsers play; others are in downloads only.
export const played = (codecs) => codecs.filter((codec) => codec === "aac" || codec === "opus");
export const notPlayed = (codecs) => codecs.filter((codec) => codec !== "aac" && codec !== "opus");

export class Sound {
  // changed(): what is there has changed.
  constructor(element, baseMs, changed) {
    Object.assign(this, { element, baseMs, changed });
    this.player = null;
    this.muted = false;
    this.begun = false;        // it was told where to begin
    this.askedAt = 0;
  }

  get channel() {
    return this.player?.channel ?? null;
  }

  // null: none.
  setChannel(channel) {
    if (channel === this.channel) return;
    this.player?.close();
    this.player = channel === null ? null : new ChannelPlayer(channel, this.element, this.baseMs, this.changed);
    this.begun = false;
  }

  setMuted(muted) {
    this.muted = muted;
    this.begun = false;
  }

  get volume() {
    return this.element.volume;
  }

  set volume(volume) {
    this.element.volume = Math.min(Math.max(volume, 0), 1);
  }

  // The pictures are elsewhere now.
  restart() {
    this.begun = false;
  }

  // Where the pictures are; running: they move on.
  follow(ms, rate, running, live) {
    const { player } = this;
    if (player === null) return;
    if (this.muted || !running || rate > fastest) {
      if (!this.element.paused) this.element.pause();
      return;
    }
    if (!this.begun) {
      player.want(ms, false);
      this.begun = true;
    }
    player.following = live;
    if (live) this.ask(ms);
    player.follow(ms, rate, true);
  }

  ask(ms) {
    const now = performance.now();
    if (now - this.askedAt < askEveryMs || this.player.readyUntil(ms) - ms > nearEndMs) return;
    this.askedAt = now;
    this.player.more();
  }
}
