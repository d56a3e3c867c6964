// Beside the video, in step with it: the events and the system log.
import { api } from "./api.js";
import { strings } from "./strings.js";

const mostEvents = 500, mostLines = 400;
const askedAfterMs = 150;
const logAheadMs = 600000;   // lines behind the moment that is shown
const stillMs = 2500;        // a list that a hand has moved is left alone for so long

const make = (name, properties = {}, ...children) => {
  const element = Object.assign(document.createElement(name), properties);
  element.append(...children);
  return element;
};

// A list of which one row is the present one, and is kept in sight.
class StepList {
  constructor(panel) {
    this.panel = panel;
    this.rows = [];            // {ms, element}, in order of time
    this.current = null;
    this.touchedAt = -Infinity;
    for (const name of ["wheel", "pointerdown", "keydown", "touchmove"]) {
      panel.addEventListener(name, () => { this.touchedAt = performance.now(); }, { passive: true });
    }
  }

  show(rows, ...others) {
    const hadFocus = this.panel.contains(document.activeElement) && document.activeElement !== this.panel;
    this.rows = rows;
    this.current = null;
    const list = make("ol", {}, ...rows.map((row) => row.element));
    this.panel.replaceChildren(...(rows.length > 0 ? [list] : []), ...others);
    if (hadFocus) this.panel.focus();
  }

  // Marks the last row that has begun.
  step(ms) {
    let first = 0, end = this.rows.length;
    while (first < end) {
      const middle = (first + end) >> 1;
      if (this.rows[middle].ms <= ms) first = middle + 1;
      else end = middle;
    }
    const row = this.rows[first - 1] ?? null;
    if (row === this.current) return;
    this.current?.element.removeAttribute("aria-current");
    this.current = row;
    row?.element.setAttribute("aria-current", "time");
    if (row !== null && performance.now() - this.touchedAt > stillMs) this.bringIntoSight(row.element);
  }

  bringIntoSight(element) {
    const { panel } = this;
    const top = element.offsetTop - panel.offsetTop;
    if (top < panel.scrollTop + 20 || top + element.offsetHeight > panel.scrollTop + panel.clientHeight - 20) {
      panel.scrollTop = top - panel.clientHeight / 3;
    }
  }
}

export class EventsPanel {
  // view: the period whose events are listed; told: {seek(ms), failed(error), events(list)}.
  constructor(state, view, told) {
    this.state = state;
    this.view = view;
    this.told = told;
    this.panel = document.getElementById("panel-events");
    this.list = new StepList(this.panel);
    this.events = [];
    this.part = false;         // there are more than are listed
  }

  need() {
    clearTimeout(this.timer);
    this.timer = setTimeout(() => this.ask(), askedAfterMs);
  }

  async ask() {
    this.stopper?.abort();
    this.stopper = new AbortController();
    const { view, state } = this;
    const to = Math.ceil(view.to);
    let from = Math.floor(view.from);
    const all = state.countEvents(from, to);
    // Of too many those around the moment that is shown.
    if (all > mostEvents && view.includes(state.timeMs)) {
      from = Math.max(from, Math.floor(state.backBy(state.timeMs, mostEvents / 2)));
    }
    try {
      const answer = await api.events({ from, to, limit: mostEvents }, this.stopper.signal);
      this.events = answer.events;
      this.part = answer.next !== null || from > view.from;
      this.show(all);
      this.told.events(this.events);
    } catch (error) {
      if (error.name !== "AbortError") this.told.failed(error);
    }
  }

  // all: how many there are in the view.
  show(all) {
    const rows = this.events.map((event) => ({ ms: event.startMs, element: this.row(event) }));
    this.list.show(rows);
    if (this.part || rows.length === 0) {
      const textContent = this.part ? strings.moreEvents(rows.length, Math.max(all, rows.length)) : strings.noEvents;
      this.panel.prepend(make("p", { className: "quiet", textContent }));
    }
    this.step();
  }

  row(event) {
    const { zone } = this.state;
    const length = event.endMs === null ? strings.eventRuns : strings.length(event.endMs - event.startMs);
    const button = make("button", { type: "button" },
      make("span", { className: "figures", textContent: `${zone.date(event.startMs).slice(5)} ${zone.time(event.startMs)}` }),
      make("span", { className: "what", textContent: strings.trigger(event.trigger) }),
      make("span", { className: "figures quiet", textContent: length }));
    button.addEventListener("click", () => this.told.seek(event.startMs));
    return make("li", {}, button);
  }

  step() {
    const { timeMs } = this.state;
    this.list.step(timeMs + 1);
    const left = this.part && this.events.length > 0 && this.view.includes(timeMs) &&
      (timeMs < this.events[0].startMs || timeMs > this.events.at(-1).startMs);
    // Once for each list: where the bins tell less than the events, the next is the same.
    if (left && this.leftBehind !== this.events) {
      this.leftBehind = this.events;
      this.need();
    }
  }
}

export class LogPanel {
  // told: {seek(ms), failed(error)}.
  constructor(state, told) {
    this.state = state;
    this.told = told;
    this.panel = document.getElementById("panel-log");
    this.list = new StepList(this.panel);
    this.from = this.to = null;
  }

  // Asks where the moment that is shown has left what is listed.
  need(force = false) {
    const { timeMs } = this.state;
    if (this.panel.hidden || (!force && this.from !== null && timeMs >= this.from && timeMs < this.to)) return;
    clearTimeout(this.timer);
    this.timer = setTimeout(() => this.ask(timeMs), askedAfterMs);
  }

  async ask(timeMs) {
    this.stopper?.abort();
    this.stopper = new AbortController();
    const to = Math.ceil(timeMs + logAheadMs);
    try {
      const answer = await api.log({ from: 0, to, limit: mostLines }, this.stopper.signal);
      this.show(answer);
      this.from = answer.leftOut ? (answer.lines.find((line) => line.timeMs !== null)?.timeMs ?? timeMs) : -Infinity;
      this.to = to - logAheadMs / 3;
    } catch (error) {
      if (error.name !== "AbortError") this.told.failed(error);
    }
  }

  show({ lines, leftOut }) {
    let ms = -Infinity;
    const rows = lines.map((line) => {
      ms = line.timeMs ?? ms;
      return { ms, element: this.row(line) };
    });
    const others = rows.length === 0 ? [make("p", { className: "quiet", textContent: strings.noLog })] : [];
    this.list.show(rows, ...others);
    if (leftOut) this.panel.prepend(make("p", { className: "quiet", textContent: strings.logLeftOut }));
    this.step();
  }

  row(line) {
    const text = make("span", { className: "line", textContent: line.text });
    if (line.timeMs === null) return make("li", {}, text);
    const button = make("button", { type: "button" }, text);
    button.addEventListener("click", () => this.told.seek(line.timeMs));
    return make("li", {}, button);
  }

  step() {
    this.list.step(this.state.timeMs + 1);
  }
}
