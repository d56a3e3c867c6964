// The timeline under the hand: wheel, drag, pinch, click, keys and the overview below it.
import { api } from "./api.js";
import { colours, drawOverview, drawTimeline, gutterOf, heightFor, sizes } from "./draw.js";
import { strings } from "./strings.js";
import { periodTitle } from "./ticks.js";
import { TimelineData, View } from "./view.js";

const overviewHeight = 22;
const stillPixels = 4;       // less than this is a click
const handlePixels = 7, fingerPixels = 20;
const hoverAfterMs = 60, scrubEveryMs = 100;
const thumbWidth = 192;
const wheelStep = 1.0016;    // per unit of the wheel
const keyShare = 1 / 50;     // of the view, for a key

export class Timeline {
  // state: what the page knows (main.js); told: {seek(ms), selected(selection), viewed(), failed(error)}.
  constructor(state, told) {
    this.state = state;
    this.told = told;
    this.section = document.getElementById("timeline");
    this.lanes = document.getElementById("lanes");
    this.overview = document.getElementById("overview");
    this.hover = document.getElementById("hover");
    this.view = new View(0, 1000);
    this.whole = new View(0, 1000);
    this.selection = null;
    this.selecting = false;
    this.hoverMs = null;
    this.drawnX = 0;           // of the moment that is shown
    this.pointers = new Map();
    this.scrubbing = null;
    this.data = new TimelineData(() => this.changed(), (error) => told.failed(error));
    this.wholeData = new TimelineData(() => this.changed(), (error) => told.failed(error));
    this.look = colours(this.section);
    this.watchSize();
    this.watchHand();
    this.watchOverview();
  }

  watchSize() {
    new ResizeObserver(() => this.changed()).observe(this.section);
    for (const query of ["(prefers-color-scheme: dark)", "(prefers-contrast: more)"]) {
      matchMedia(query).addEventListener("change", () => {
        this.look = colours(this.section);
        this.changed();
      });
    }
  }

  // Draws before the next picture of the screen.
  changed() {
    if (this.drawing) return;
    this.drawing = true;
    requestAnimationFrame(() => {
      this.drawing = false;
      this.draw();
    });
  }

  showAll() {
    const { oldestMs, newestMs } = this.state;
    const margin = Math.max(500, (newestMs - oldestMs) * 0.02);
    this.view.show(oldestMs - margin, newestMs + margin);
    this.moved();
  }

  // The ends of the card, as they are now.
  setEnds(force) {
    const { oldestMs, newestMs } = this.state;
    const margin = Math.max(500, (newestMs - oldestMs) * 0.02);
    this.whole.from = oldestMs - margin;
    this.whole.to = newestMs + margin;
    this.wholeData.need(this.whole, force);
    if (force) this.data.need(this.view, true);
    this.changed();
  }

  moved() {
    this.view.keepWithin(this.state.oldestMs, this.state.newestMs);
    this.data.need(this.view);
    this.told.viewed();
    this.changed();
  }

  // Keeps the moment that is shown in sight, unless the hand has moved the view away from it; force:
  // brings it into sight.
  follow(ms, force = false) {
    const { view } = this;
    const wasSeen = this.lastMs !== undefined && view.includes(this.lastMs);
    this.lastMs = ms;
    // Less than half a pixel is not seen.
    if (force || Math.abs(view.x(ms) - this.drawnX) >= 0.5) this.changed();
    if (this.pointers.size > 0 || !(force || wasSeen)) return;
    if (!view.includes(ms)) view.move(ms - (view.from + view.to) / 2);
    else if (this.state.playing && ms > view.to - view.span * 0.05 && this.state.newestMs > view.to) view.move(ms - (view.from + view.span * 0.75));
    else return;
    this.moved();
  }

  zoom(factor, around = this.state.timeMs) {
    this.view.zoom(factor, this.view.includes(around) ? around : (this.view.from + this.view.to) / 2);
    this.moved();
  }

  select(selection) {
    this.selection = selection;
    this.told.selected(selection);
    this.changed();
  }

  draw() {
    const { state, view, whole } = this;
    const width = this.lanes.clientWidth;
    if (width === 0) return;
    const height = heightFor(state.channels.length);
    this.lanes.style.height = `${height}px`;
    view.width = Math.max(1, width - gutterOf(width) - 8);
    whole.width = view.width;
    this.drawnX = view.x(state.timeMs);
    drawTimeline(this.lanes.firstElementChild, width, this.look, {
      ...state, view, data: this.data, hoverMs: this.hoverMs, selection: this.selection,
    });
    drawOverview(this.overview.firstElementChild, width, overviewHeight, this.look, {
      ...state, view, whole, data: this.wholeData,
    });
    document.getElementById("view-title").textContent = periodTitle(state.zone, view.from, view.to);
    this.describe();
  }

  describe() {
    const { state } = this;
    const at = { "aria-valuemin": state.oldestMs, "aria-valuemax": state.newestMs, "aria-valuenow": state.timeMs };
    for (const [name, ms] of Object.entries(at)) this.lanes.setAttribute(name, String(Math.round(ms / 1000)));
    this.lanes.setAttribute("aria-valuetext", state.zone.dateTime(state.timeMs));
    Object.assign(this.lanes.dataset, { from: this.view.from, to: this.view.to });
  }

  // The hand.

  msAt(event) {
    const box = this.lanes.getBoundingClientRect();
    return this.view.ms(event.clientX - box.left - gutterOf(box.width));
  }

  watchHand() {
    const { lanes } = this;
    lanes.addEventListener("wheel", (event) => this.wheel(event), { passive: false });
    lanes.addEventListener("pointerdown", (event) => this.down(event));
    lanes.addEventListener("pointermove", (event) => this.move(event));
    lanes.addEventListener("pointerup", (event) => this.up(event));
    lanes.addEventListener("pointercancel", (event) => this.lift(event));
    lanes.addEventListener("pointerleave", () => this.hideHover());
    lanes.addEventListener("keydown", (event) => this.key(event));
  }

  wheel(event) {
    event.preventDefault();
    const unit = event.deltaMode === 1 ? 32 : 1;
    if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
      this.view.move((((event.deltaX || event.deltaY) * unit) / this.view.width) * this.view.span);
      this.moved();
    } else {
      this.view.zoom(wheelStep ** (event.deltaY * unit), this.msAt(event));
      this.moved();
    }
  }

  down(event) {
    if (event.button !== 0) return;
    this.lanes.setPointerCapture(event.pointerId);
    this.pointers.set(event.pointerId, event);
    const onAxis = event.clientY - this.lanes.getBoundingClientRect().top < sizes.axis;
    // A second finger is no tap, and draws no selection.
    const alone = this.pointers.size === 1;
    this.from = { x: event.clientX, ms: this.msAt(event), moved: !alone, onAxis: onAxis && alone };
    this.grip = onAxis || !alone ? null : this.gripAt(event);
    if (!alone) return;
    if (this.grip === null && !onAxis && (this.selecting || event.shiftKey)) this.grip = this.from.ms;
    this.hideHover();
  }

  // The other end of the selection, when the hand holds one; else null.
  gripAt(event) {
    if (this.selection === null) return null;
    const box = this.lanes.getBoundingClientRect();
    const x = event.clientX - box.left - gutterOf(box.width);
    const near = event.pointerType === "touch" ? fingerPixels : handlePixels;
    if (Math.abs(x - this.view.x(this.selection.from)) <= near) return this.selection.to;
    if (Math.abs(x - this.view.x(this.selection.to)) <= near) return this.selection.from;
    return null;
  }

  move(event) {
    if (!this.pointers.has(event.pointerId)) {
      this.showHover(event);
      return;
    }
    const before = [...this.pointers.values()];
    this.pointers.set(event.pointerId, event);
    if (this.pointers.size === 2) {
      this.pinch(before, [...this.pointers.values()]);
      return;
    }
    if (Math.abs(event.clientX - this.from.x) > stillPixels) this.from.moved = true;
    if (!this.from.moved) return;
    if (this.grip !== null) this.drawSelectionTo(this.msAt(event));
    else if (this.from.onAxis) this.scrub(this.msAt(event));
    else {
      this.view.move(this.from.ms - this.msAt(event));
      this.moved();
    }
  }

  // Drags the moment that is shown: not more often than pictures can follow.
  scrub(ms) {
    this.scrubMs = ms;
    this.scrubbing ??= setTimeout(() => {
      this.scrubbing = null;
      this.told.seek(this.scrubMs, false);
    }, scrubEveryMs);
  }

  drawSelectionTo(ms) {
    this.select({ from: Math.min(this.grip, ms), to: Math.max(this.grip, ms) });
  }

  // What was between the fingers stays there.
  pinch(before, after) {
    const apart = ([a, b]) => Math.max(10, Math.abs(a.clientX - b.clientX));
    const middle = ([a, b]) => this.msAt({ clientX: (a.clientX + b.clientX) / 2 });
    const held = middle(before);
    this.view.zoom(apart(before) / apart(after), held);
    this.view.move(held - middle(after));
    this.moved();
  }

  up(event) {
    const seeks = this.lift(event) && !this.from.moved && this.pointers.size === 0;
    if (seeks) this.told.seek(this.msAt(event), true);
  }

  // Of two fingers the one that stays goes on from where it is.
  lift(event) {
    const held = this.pointers.delete(event.pointerId);
    const [rest] = this.pointers.values();
    if (held && rest !== undefined) {
      this.from = { x: rest.clientX, ms: this.msAt(rest), moved: true, onAxis: false };
      this.grip = null;
    }
    return held;
  }

  key(event) {
    if (event.ctrlKey || event.metaKey || event.altKey) return;
    const sign = { ArrowLeft: -1, ArrowRight: 1, PageUp: -5, PageDown: 5 }[event.key];
    if (sign === undefined) return;
    event.preventDefault();
    event.stopPropagation();
    if (event.shiftKey) {
      this.view.move(sign * this.view.span * 0.2);
      this.moved();
    } else {
      this.told.seek(this.state.timeMs + sign * this.view.span * keyShare, false);
    }
  }

  // The picture under the pointer.

  showHover(event) {
    const box = this.lanes.getBoundingClientRect();
    const x = event.clientX - box.left - gutterOf(box.width);
    if (x < 0 || x > this.view.width || event.pointerType === "touch") {
      this.hideHover();
      return;
    }
    this.hoverMs = this.view.ms(x);
    const half = thumbWidth / 2 + 6;
    const middle = Math.min(Math.max(event.clientX, half), document.documentElement.clientWidth - half);
    this.hover.style.left = `${middle - this.section.getBoundingClientRect().left}px`;
    this.hover.hidden = false;
    this.hover.lastElementChild.textContent = this.hoverText();
    this.lanes.style.cursor = this.gripAt(event) === null ? "" : "ew-resize";
    clearTimeout(this.hoverTimer);
    const y = event.clientY - box.top;
    this.hoverTimer = setTimeout(() => this.showThumbnail(y), hoverAfterMs);
    this.changed();
  }

  hoverText() {
    const { zone } = this.state;
    const digits = this.view.span < 20000 ? 2 : 0;
    const within = (3 / this.view.width) * this.view.span;
    const count = this.data.countEvents(this.hoverMs - within, this.hoverMs + within);
    const time = zone.dateTime(this.hoverMs, digits);
    return count === 0 ? time : `${time} · ${strings.hoverEvents(count)}`;
  }

  showThumbnail(y) {
    const channels = this.state.channels.map((channel) => channel.channel);
    // Of the lane under the pointer or else of the first channel that has one.
    const lane = channels[Math.floor((y - sizes.axis) / (sizes.lane + sizes.apart))];
    const channel = [lane, ...channels].find((number) => number !== undefined &&
      this.hoverMs !== null && this.data.bins !== null && this.data.recorded(number, this.hoverMs));
    const picture = this.hover.firstElementChild;
    if (channel === undefined) {
      picture.hidden = true;
      return;
    }
    const at = Math.round(this.hoverMs);
    picture.onload = () => { picture.hidden = false; };
    picture.onerror = () => { picture.hidden = true; };
    picture.src = api.thumbnailAddress(channel, at, thumbWidth);
  }

  hideHover() {
    clearTimeout(this.hoverTimer);
    this.hoverMs = null;
    this.hover.hidden = true;
    this.hover.firstElementChild.hidden = true;
    this.changed();
  }

  watchOverview() {
    const show = (event) => {
      const box = this.overview.getBoundingClientRect();
      const ms = this.whole.ms(event.clientX - box.left - gutterOf(box.width));
      this.view.move(ms - (this.view.from + this.view.to) / 2);
      this.moved();
    };
    this.overview.addEventListener("pointerdown", (event) => {
      this.overview.setPointerCapture(event.pointerId);
      show(event);
    });
    this.overview.addEventListener("pointermove", (event) => {
      if (event.buttons & 1) show(event);
    });
  }
}
