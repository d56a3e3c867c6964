// Shows one channel's video, or lets its sound be heard: appends pieces to a media source whose time is the recorder's, shifted by
// a base, so that a gap is a gap there, too, and every channel has the same time. What is to be shown
// when is told by the Player; this only sees to it that it is there.
import { api } from "./api.js";
import { Pieces } from "./pieces.js";

const aheadMs = 8000;        // fetched in advance, at single speed
const behindMs = 20000;      // kept behind what is shown
const retryMs = 1000;
const wholeSeconds = 1e9;    // more than any card holds
const soundFarMs = 700;      // between pictures and sound; what is less is caught up with gently
const holeMs = 60;           // what a browser plays across
const aheadSeconds = 0.15;   // of the moment, that a picture may be on the screen
export const stuckMs = 2000; // a video that comes no further for so long is told again where to go

export class ChannelPlayer {
  // video: the element, of sound an audio one; changed(): what is there has changed.
  constructor(channel, video, baseMs, changed) {
    this.channel = channel;
    this.video = video;
    this.isSound = video instanceof HTMLAudioElement;
    this.baseMs = baseMs;
    this.changed = changed;
    this.soughtMs = null;
    this.known = [];           // pieces that were appended, in order
    this.held = null;          // the piece behind a gap, appended when its time has come
    this.pieces = null;
    this.wantedMs = baseMs;
    this.rate = 1;
    this.shownMs = null;       // true time of the picture on the screen
    this.problem = null;       // "cannotDecode", "pieceMissing"
    this.refusal = null;       // the server's words
    this.following = false;
    this.stale = false;
    this.asked = false;
    this.busy = false;
    this.retryAt = 0;          // what was not reached is not asked for before
    this.opened = this.open();
    this.seekingSince = 0;
    video.addEventListener("seeking", () => (this.seekingSince = performance.now()));
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
    // Firefox tells of pictures, too, that wait for their time still. The others do not, and Chromium's
    // currentTime stays behind the picture for a while where it had to wait for data.
    const tellsEarly = "mozHasAudio" in this.video;
    const seen = (now, picture) => {
      const { currentTime, playbackRate } = this.video;
      const waits = tellsEarly && picture.mediaTime - currentTime > aheadSeconds * Math.max(1, playbackRate);
      this.shownMs = this.baseMs + (waits ? currentTime : picture.mediaTime) * 1000;
      this.changed();
      if (!this.closed) this.video.requestVideoFrameCallback(seen);
    };
    this.video.requestVideoFrameCallback(seen);
  }

  // Begins anew from {from: ms} or {live: 1}.
  begin(start, keysOnly) {
    this.pieces?.stop();
    this.pieces = new Pieces(this.channel, start, keysOnly, this.isSound);
    this.known = [];
    this.held = null;
    this.stale = true;
    this.problem = null;
    this.refusal = null;
    this.shownMs = null;
    this.wake();
  }

  // Makes a moment the one that is wanted, and begins anew only where it is not at hand.
  want(ms, keysOnly) {
    this.wantedMs = ms;
    this.following = false;
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

  // From the newest picture on; more is waited for.
  wantLive() {
    this.following = true;
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
    const next = this.known.find((piece) => piece.fromMs > ms) ?? this.held?.piece;
    if (next !== undefined && next.fromMs > ms) return { kind: "gap", until: next.fromMs };
    const ended = this.pieces?.exhausted && this.held === null && !this.busy;
    return { kind: ended ? "end" : "loading" };
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
      this.feed();
      return false;
    }
    const driftMs = Math.abs(this.timeMs - ms);
    const runningMs = this.isSound ? soundFarMs : 150 * Math.max(1, rate);
    const allowedMs = playing && !this.video.paused ? runningMs : 0.2;
    // Once for each moment: what the browser makes of it stays. Always after the buffer was cleared: of
    // what it held, pictures are decoded in advance.
    const needed = this.soughtMs === null || (driftMs > allowedMs && (playing || this.soughtMs !== ms));
    // A browser that is sent to the very end of what is there may never arrive.
    const arriving = this.video.seeking && performance.now() - this.seekingSince < stuckMs;
    if (needed && !arriving) {
      this.soughtMs = ms;
      this.video.currentTime = this.seconds(ms);
    }
    const kept = this.isSound ? this.rateBeside(ms, rate) : rate;
    if (this.video.playbackRate !== kept) this.video.playbackRate = kept;
    if (playing && this.video.paused && !this.video.ended) this.video.play().catch(() => {});
    if (!playing && !this.video.paused) this.video.pause();
    this.feed();
    return true;
  }

  // Sound that is sent to another place is not heard for a while: it goes a little faster or slower instead.
  rateBeside(ms, rate) {
    const behindMs = ms - this.timeMs;
    return Math.abs(behindMs) < 30 ? rate : rate * Math.min(Math.max(1 + behindMs / 3000, 0.92), 1.08);
  }

  // Called for every picture of the screen: does nothing where nothing is to be had.
  feed() {
    if (this.pieces === null || performance.now() < this.retryAt) return;
    if (this.hungry() && (this.held !== null || !this.pieces.exhausted)) this.wake();
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
        if (pieces !== null && !this.stale && this.hungry() && (await this.appendNext(pieces))) this.asked = true;
      } catch (error) {
        if (error.name !== "AbortError") this.postpone(error);
      }
      if (pieces !== this.pieces) this.asked = true;
    }
    this.busy = false;
    this.changed();
  }

  // Asks again later, and tells what the server has against it; that it is not reached, the page says.
  postpone(error) {
    this.retryAt = performance.now() + retryMs;
    if (!(error instanceof TypeError)) this.refusal = error.message;
  }

  hungry() {
    if (this.held !== null) return this.wantedMs >= this.held.piece.fromMs;
    const last = this.known.at(-1);
    return last === undefined || last.toMs - this.wantedMs < aheadMs * Math.max(1, this.rate);
  }

  // What stands behind a gap waits: the browser shows the last pictures before it only when it is told
  // that none follow, and that it is told of the end of what is there.
  async appendNext(pieces) {
    const loaded = this.held ?? (await this.load(pieces));
    this.held = null;
    if (pieces !== this.pieces) return false;
    if (loaded === null) {
      if (!this.following) this.showLast();
      return false;
    }
    if (loaded.media === null) return true;
    const last = this.known.at(-1);
    if (last !== undefined && loaded.piece.fromMs - last.toMs > holeMs && this.wantedMs < loaded.piece.fromMs) {
      this.held = loaded;
      this.showLast();
      return false;
    }
    if (!(await this.append(loaded))) return false;
    this.refusal = null;
    this.known.push(loaded.piece);
    this.changed();
    return true;
  }

  showLast() {
    if (this.source.readyState === "open" && this.buffer !== undefined && !this.buffer.updating) this.source.endOfStream();
  }

  // The next piece with its bytes, {piece, init, media}; media is null where the server refuses them:
  // they have gone or are damaged, and are a gap. Null where nothing follows yet.
  async load(pieces) {
    const piece = await pieces.next();
    if (piece === null || pieces !== this.pieces) return null;
    try {
      const init = piece.init === this.init ? null : await api.bytes(piece.init, pieces.signal);
      return { piece, init, media: await api.bytes(piece.media, pieces.signal) };
    } catch (error) {
      if (error.name === "AbortError") throw error;
      if (error instanceof TypeError || error.isForNow) {
        pieces.putBack(piece);  // not reached, or not now: asked for again
        throw error;
      }
      this.problem = "pieceMissing";
      return { piece, init: null, media: null };
    }
  }

  async append({ piece, init, media }) {
    const type = `${this.isSound ? "audio" : "video"}/mp4; codecs="${piece.codec}"`;
    if (!MediaSource.isTypeSupported(type)) {
      this.problem = "cannotDecode";
      return false;
    }
    if (this.buffer === undefined) this.buffer = this.source.addSourceBuffer(type);
    else if (init !== null) this.buffer.changeType?.(type);  // where there is none, a beginning alone does it
    this.buffer.timestampOffset = -this.baseMs / 1000;
    if (init !== null) await this.done(() => this.buffer.appendBuffer(init));
    this.init = piece.init;
    await this.done(() => this.buffer.appendBuffer(media));
    // It shrinks whenever the end was told.
    if (this.source.duration !== wholeSeconds) this.source.duration = wholeSeconds;
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
    const { pieces } = this;
    if (this.buffer !== undefined) {
      if (this.source.readyState === "open") this.buffer.abort();
      await this.done(() => this.buffer.remove(0, wholeSeconds));
    }
    this.init = null;
    this.soughtMs = null;
    // What is there is that of these pieces only now, unless others were begun meanwhile.
    this.stale = pieces !== this.pieces;
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
