// Which period the timeline shows, and what lies on the card in it: counted by the server into bins.
import { api } from "./api.js";

export const shortestMs = 1000, longestMs = 400 * 86400000;
const askedAfterMs = 80;     // of rest
const mostBins = 4096;

// A period and its width on the screen.
export class View {
  constructor(from, to) {
    this.from = from;
    this.to = to;
    this.width = 1;          // pixels between from and to
  }

  get span() {
    return this.to - this.from;
  }

  x(ms) {
    return ((ms - this.from) / this.span) * this.width;
  }

  ms(x) {
    return this.from + (x / this.width) * this.span;
  }

  // around: the moment that stays where it is.
  zoom(factor, around) {
    const span = Math.min(longestMs, Math.max(shortestMs, this.span * factor));
    const share = (around - this.from) / this.span;
    this.from = around - share * span;
    this.to = this.from + span;
  }

  move(ms) {
    this.from += ms;
    this.to += ms;
  }

  show(from, to) {
    const span = Math.min(longestMs, Math.max(shortestMs, to - from));
    const middle = (from + to) / 2;
    this.from = middle - span / 2;
    this.to = middle + span / 2;
  }

  // Keeps a part of the card in sight.
  keepWithin(oldest, newest) {
    const part = this.span / 10;
    if (this.from > newest - part) this.move(newest - part - this.from);
    if (this.to < oldest + part) this.move(oldest + part - this.to);
  }

  includes(ms) {
    return ms >= this.from && ms <= this.to;
  }
}

// The bins of a period a little wider than the view, asked for again when the view has left it or
// shows it much closer.
export class TimelineData {
  // changed(): new bins are there; failed(error).
  constructor(changed, failed) {
    this.changed = changed;
    this.failed = failed;
    this.bins = null;
    this.stopper = null;
    this.timer = 0;
  }

  // Asks once the view has come to rest; force: what was recorded has changed.
  need(view, force = false) {
    if (!force && this.covers(view)) return;
    clearTimeout(this.timer);
    this.timer = setTimeout(() => this.ask(view), this.bins === null ? 0 : askedAfterMs);
  }

  covers(view) {
    const { bins } = this;
    return bins !== null && view.from >= bins.fromMs && view.to <= bins.toMs &&
      bins.binMs <= (view.span / view.width) * 2.5;
  }

  async ask(view) {
    this.stopper?.abort();
    this.stopper = new AbortController();
    const beside = view.span / 2;
    const bins = Math.min(mostBins, Math.max(64, Math.round(view.width)));
    const question = { from: Math.floor(view.from - beside), to: Math.ceil(view.to + beside), bins };
    try {
      this.bins = await api.timeline(question, this.stopper.signal);
      this.changed();
    } catch (error) {
      if (error.name !== "AbortError") this.failed(error);
    }
  }

  channel(number) {
    return this.bins?.channels.find((channel) => channel.channel === number);
  }

  binAt(ms) {
    return Math.floor((ms - this.bins.fromMs) / this.bins.binMs);
  }

  // Whether anything of a channel was recorded near a moment.
  recorded(number, ms) {
    return (this.channel(number)?.covered[this.binAt(ms)] ?? 0) > 0;
  }

  countEvents(from, to) {
    if (this.bins === null) return 0;
    let count = 0;
    for (let i = Math.max(0, this.binAt(from)); i <= this.binAt(to); ++i) count += this.bins.events[i] ?? 0;
    return count;
  }

  // A moment so far back that about so many events lie between it and ms.
  backBy(ms, count) {
    if (this.bins === null) return ms;
    let i = Math.min(this.binAt(ms), this.bins.bins - 1);
    for (; i > 0 && count > 0; --i) count -= this.bins.events[i];
    return this.bins.fromMs + i * this.bins.binMs;
  }
}
