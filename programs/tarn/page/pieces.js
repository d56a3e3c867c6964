// The pieces of one channel's video, in order from a moment on: asked of the server some at a time.
import { api } from "./api.js";

const askedAtOnce = 8;

export class Pieces {
  // start: {from: ms} or {live: 1}; keysOnly: pieces that hold key pictures only; sound: of the channel's
  // sound instead.
  constructor(channel, start, keysOnly, sound) {
    this.question = { channel, keys: keysOnly ? 1 : 0, sound: sound ? 1 : 0, limit: keysOnly ? 32 : askedAtOnce };
    this.start = start;
    this.after = null;
    this.waiting = [];
    this.atEnd = false;  // nothing further was safe on the card when last asked
    this.stopper = new AbortController();
  }

  get signal() {
    return this.stopper.signal;
  }

  stop() {
    this.stopper.abort();
  }

  get exhausted() {
    return this.atEnd && this.waiting.length === 0;
  }

  // There may be more than when last asked.
  more() {
    this.atEnd = false;
  }

  // The next piece; null where nothing follows yet.
  async next() {
    if (this.waiting.length === 0 && !this.atEnd) await this.ask();
    return this.waiting.shift() ?? null;
  }

  putBack(piece) {
    this.waiting.unshift(piece);
  }

  async ask() {
    const start = this.after === null ? this.start : { after: this.after };
    const answer = await api.segments({ ...this.question, ...start }, this.signal);
    this.waiting.push(...answer.segments.filter((piece) => piece.toMs > piece.fromMs));
    this.after = answer.next ?? this.after;
    this.atEnd = answer.end || answer.segments.length === 0;
  }
}
