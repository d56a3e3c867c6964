// Shows one channel's video: appends pieces to a media source whose time is the recorder's, shifted by
// a base, so that a gap is a gap there, too, and every channel has the same time. What is to be shown
// when is told by the Player; this only sees to it that it is there.
import { api } from "./api.js";
import { Pieces } from "./pieces.js";

const aheadMs = 8000;        // fetched in advance, at single speed
const behindMs = 20000;      // kept behind what is shown
const retryMs = 1000;
const wholeSeconds = 1e9;    // more than any card holds
const holeMs = 60;           // what a browser plays across

export class ChannelPlayer {
  // changed(): what is there has changed.
  constructor(channel, video, baseMs, changed) {
    this.channel = channel;
    this.video = video;
    this.baseMs = baseMs;
    this.changed = changed;
    this.known = [];           // pieces that were appended, in order
    this.pieces = null;
    this.wantedMs = baseMs;
    this.rate = 1;
    this.shownMs = null;       // true time of the picture on the screen
    this.problem = null;       // "cannotDecode", "pieceMissing"
    this.stale = false;
    this.asked = false;
    this.busy = false;
    this.opened = this.open();
    this.watchPictures();
  }

  open() {
    this.source = new MediaSource();
    this.address = URL.createObjectURL(this.source);
    this.video.src = this.address;
    return new Promise((resolve) => this.source.addEventListener("sourceopen", resolve, { once: true }));
  }

  close() {
    this.closed = true;
    this.pieces?.stop();
    this.video.removeAttribute("src");
    this.video.load();
    URL.revokeObjectURL(this.address);
  }

  seconds(ms) {
    return (ms - this.baseMs) / 1000;
  }

  get timeMs() {
    return this.baseMs + this.video.currentTime * 1000;
  }

  // The time of every picture that reaches the screen.
  watchPictures() {
    if (!("requestVideoFrameCallback" in this.video)) return;
    const seen = (now, picture) => {
      this.shownMs = this.baseMs + picture.mediaTime * 1000;
      this.changed();
      if (!this.closed) this.video.requestVideoFrameCallback(seen);
    };
    this.video.requestVideoFrameCallback(seen);
  }

  // Begins anew from {from: ms} or {live: 1}.
  begin(start, keysOnly) {
    this.pieces?.stop();
    this.pieces = new Pieces(this.channel, start, keysOnly);
    this.known = [];
    this.stale = true;
    this.problem = null;
    this.shownMs = null;
    this.wake();
  }

  // Makes a moment the one that is wanted, and begins anew only where it is not at hand.
  want(ms, keysOnly) {
    this.wantedMs = ms;
    const last = this.known.at(-1);
    const near = this.known.length > 0 && ms >= this.known[0].fromMs && ms <= last.toMs + aheadMs;
    if (this.pieces === null || this.keysOnly !== keysOnly || !(near || this.beginsAt === ms)) {
      this.keysOnly = keysOnly;
      this.beginsAt = ms;
      this.begin({ from: ms }, keysOnly);
    } else {
      this.wake();
    }
  }

  wantLive() {
    this.keysOnly = false;
    this.beginsAt = null;
    this.begin({ live: 1 }, false);
  }

  // What is there at a moment: {kind: "ready" | "gap" | "loading" | "end", until: ms of the next picture}.
  at(ms) {
    const x = this.seconds(ms), { buffered } = this.video;
    if (!this.stale) {
      for (let i = 0; i < buffered.length; ++i) {
        if (x >= buffered.start(i) - 0.0005 && x < buffered.end(i) - 0.001) return { kind: "ready" };
      }
    }
    const next = this.known.find((piece) => piece.fromMs > ms);
    if (next !== undefined) return { kind: "gap", until: next.fromMs };
    return { kind: this.pieces?.atEnd && this.pieces.waiting.length === 0 && !this.busy ? "end" : "loading" };
  }

  // End of what is there without a gap from a moment on.
  readyUntil(ms) {
    const x = this.seconds(ms), { buffered } = this.video;
    for (let i = 0; i < buffered.length; ++i) {
      if (x >= buffered.start(i) - 0.05 && x <= buffered.end(i)) return this.baseMs + buffered.end(i) * 1000;
    }
    return ms;
  }

  // Brings the video to a moment; false while that is not there.
  follow(ms, rate, playing) {
    this.wantedMs = ms;
    this.rate = rate;
    if (this.at(ms).kind !== "ready") {
      if (!this.video.paused) this.video.pause();
      this.wake();
      return false;
    }
    const driftMs = Math.abs(this.timeMs - ms);
    const allowedMs = playing && !this.video.paused ? 150 * Math.max(1, rate) : 0.2;
    // Once for each moment: what the browser makes of it stays.
    if (driftMs > allowedMs && !this.video.seeking && (playing || this.soughtMs !== ms)) {
      this.soughtMs = ms;
      this.video.currentTime = this.seconds(ms);
    }
    if (this.video.playbackRate !== rate) this.video.playbackRate = rate;
    if (playing && this.video.paused) this.video.play().catch(() => {});
    if (!playing && !this.video.paused) this.video.pause();
    this.wake();
    return true;
  }

  more() {
    this.pieces?.more();
    this.wake();
  }

  // One thing after the other: the buffer takes no second call while it works.
  wake() {
    this.asked = true;
    if (!this.busy && !this.closed) this.work();
  }

  async work() {
    this.busy = true;
    await this.opened;
    while (this.asked && !this.closed) {
      this.asked = false;
      const { pieces } = this;
      try {
        if (this.stale) await this.clear();
        await this.forget();
        if (pieces !== null && this.hungry() && (await this.appendNext(pieces))) this.asked = true;
      } catch (error) {
        if (error.name !== "AbortError") setTimeout(() => this.wake(), retryMs);
      }
      if (pieces !== this.pieces) this.asked = true;
    }
    this.busy = false;
    this.changed();
  }

  hungry() {
    const last = this.known.at(-1);
    return last === undefined || last.toMs - this.wantedMs < aheadMs * Math.max(1, this.rate);
  }

  async appendNext(pieces) {
    const piece = await pieces.next();
    if (piece === null || pieces !== this.pieces) return false;
    let init = null, media;
    try {
      if (piece.init !== this.init) init = await api.bytes(piece.init, pieces.signal);
      media = await api.bytes(piece.media, pieces.signal);
    } catch (error) {
      // Not reached is asked for again; what the server refuses has gone or is damaged, and is a gap.
      if (error.name === "AbortError") throw error;
      if (error instanceof TypeError) {
        pieces.putBack(piece);
        throw error;
      }
      this.problem = "pieceMissing";
      return true;
    }
    if (pieces !== this.pieces) return false;
    if (!(await this.append(piece, init, media))) return false;
    this.known.push(piece);
    this.changed();
    return true;
  }

  async append(piece, init, media) {
    const type = `video/mp4; codecs="${piece.codec}"`;
    if (!MediaSource.isTypeSupported(type)) {
      this.problem = "cannotDecode";
      return false;
    }
    if (this.buffer === undefined) {
      this.buffer = this.source.addSourceBuffer(type);
      this.source.duration = wholeSeconds;
    } else if (init !== null) {
      this.buffer.changeType(type);
    }
    this.buffer.timestampOffset = -this.baseMs / 1000;
    if (init !== null) await this.done(() => this.buffer.appendBuffer(init));
    this.init = piece.init;
    await this.done(() => this.buffer.appendBuffer(media));
    return true;
  }

  done(call) {
    return new Promise((resolve, reject) => {
      const ended = (event) => {
        this.buffer.removeEventListener("updateend", ended);
        this.buffer.removeEventListener("error", ended);
        if (event.type === "error") {
          this.problem = "cannotDecode";
          reject(new Error(this.problem));
        } else {
          resolve();
        }
      };
      this.buffer.addEventListener("updateend", ended);
      this.buffer.addEventListener("error", ended);
      try {
        call();
      } catch (error) {
        reject(error);
      }
    });
  }

  async clear() {
    this.stale = false;
    this.soughtMs = null;
    if (this.buffer === undefined) return;
    this.buffer.abort();
    await this.done(() => this.buffer.remove(0, wholeSeconds));
    this.init = null;
  }

  async forget() {
    const until = this.seconds(this.wantedMs - behindMs * Math.max(1, this.rate));
    const { buffered } = this.video;
    if (this.buffer === undefined || buffered.length === 0 || buffered.start(0) > until - 5) return;
    await this.done(() => this.buffer.remove(0, until));
    const untilMs = this.baseMs + until * 1000;
    this.known = this.known.filter((piece) => piece.toMs > untilMs + holeMs);
  }
}
