// Draws the timeline: an axis, a lane for each channel, one for the events, the selection and the
// moment that is shown. Colours are those of page.css.
import { strings } from "./strings.js";
import { ticks } from "./ticks.js";

export const sizes = { gutter: 52, axis: 24, lane: 22, apart: 4, events: 26, below: 4 };
const narrowGutter = 40, narrowBelow = 500;
const tickPixels = 84;
const least = 0.35;          // how faint a bin is of which only little was recorded

export const gutterOf = (width) => (width < narrowBelow ? narrowGutter : sizes.gutter);
export const heightFor = (channels) =>
  sizes.axis + Math.max(1, channels) * (sizes.lane + sizes.apart) + sizes.events + sizes.below;

export function colours(element) {
  const style = getComputedStyle(element);
  const named = {};
  for (const name of ["text", "muted", "faint", "line", "lane", "recorded", "event", "play", "select", "live", "panel"]) {
    named[name] = style.getPropertyValue(`--${name}`).trim();
  }
  named.font = style.fontFamily;
  return named;
}

// Fits a canvas to its element and the screen's pixels, and gives its context in units of CSS pixels.
export function prepare(canvas, width, height) {
  const ratio = window.devicePixelRatio || 1;
  if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
  }
  const pen = canvas.getContext("2d");
  pen.setTransform(ratio, 0, 0, ratio, 0, 0);
  pen.clearRect(0, 0, width, height);
  return pen;
}

// Bins that are recorded as much, one beside the other, as one rectangle.
export function drawCovered(pen, view, bins, covered, y, height, colour) {
  pen.fillStyle = colour;
  for (let i = 0; i < covered.length; ) {
    let end = i + 1;
    while (end < covered.length && covered[end] === covered[i]) ++end;
    const from = bins.fromMs + i * bins.binMs, to = bins.fromMs + end * bins.binMs;
    if (covered[i] > 0 && to > view.from && from < view.to) {
      const left = Math.max(0, view.x(from)), right = Math.min(view.width, view.x(to));
      pen.globalAlpha = covered[i] >= 0.995 ? 1 : least + (1 - least) * covered[i];
      pen.fillRect(left, y, Math.max(1, right - left), height);
    }
    i = end;
  }
  pen.globalAlpha = 1;
}

function drawEvents(pen, view, bins, y, height, colour) {
  const most = Math.max(1, ...bins.events);
  pen.fillStyle = colour;
  bins.events.forEach((count, i) => {
    if (count === 0) return;
    const x = view.x(bins.fromMs + (i + 0.5) * bins.binMs);
    if (x < 0 || x > view.width) return;
    const size = height * (most === 1 ? 1 : 0.45 + (0.55 * Math.log(count)) / Math.log(most));
    const thick = Math.max(3, Math.min(6, view.width / bins.bins));
    pen.fillRect(Math.round(x - thick / 2), y + height - size, thick, size);
  });
}

// Spans of events that are listed beside the video, where they are wide enough to be seen.
function drawSpans(pen, view, events, nowMs, y, height, colour) {
  pen.fillStyle = colour;
  for (const event of events) {
    const left = view.x(event.startMs), right = view.x(event.endMs ?? nowMs);
    if (right < 0 || left > view.width || right - left < 4) continue;
    pen.globalAlpha = 0.3;
    pen.fillRect(Math.max(0, left), y, Math.min(view.width, right) - Math.max(0, left), height);
    pen.globalAlpha = 1;
  }
}

function drawAxis(pen, view, zone, look, height) {
  const apart = (tickPixels / view.width) * view.span;
  pen.font = `11px ${look.font}`;
  pen.textBaseline = "middle";
  for (const tick of ticks(zone, view.from, view.to, apart)) {
    const x = Math.round(view.x(tick.ms)) + 0.5;
    pen.strokeStyle = tick.strong ? look.muted : look.line;
    pen.lineWidth = 1;
    pen.beginPath();
    pen.moveTo(x, tick.strong ? 2 : sizes.axis - 7);
    pen.lineTo(x, height);
    pen.stroke();
    pen.fillStyle = tick.strong ? look.text : look.muted;
    const wide = pen.measureText(tick.text).width;
    if (x + 4 + wide < view.width) pen.fillText(tick.text, x + 4, sizes.axis / 2);
  }
}

function drawSelection(pen, view, selection, look, height) {
  const left = view.x(selection.from), right = view.x(selection.to);
  pen.fillStyle = look.select;
  pen.globalAlpha = 0.22;
  pen.fillRect(left, sizes.axis, right - left, height - sizes.axis);
  pen.globalAlpha = 1;
  for (const x of [left, right]) {
    pen.fillRect(Math.round(x) - 1, sizes.axis, 2, height - sizes.axis);
    pen.fillRect(Math.round(x) - 3, height - 14, 6, 14);
  }
}

function drawMoment(pen, x, colour, height, marked) {
  pen.fillStyle = colour;
  pen.fillRect(Math.round(x) - 0.75, marked ? 8 : sizes.axis - 6, 1.5, height);
  if (!marked) return;
  pen.beginPath();
  pen.moveTo(x - 6, 3);
  pen.lineTo(x + 6, 3);
  pen.lineTo(x, 12);
  pen.fill();
}

// what: {view, zone, data, channels, events, nowMs, timeMs, hoverMs, selection, newestMs, live}
export function drawTimeline(canvas, width, look, what) {
  const { view } = what;
  const height = heightFor(what.channels.length), gutter = gutterOf(width);
  const pen = prepare(canvas, width, height);
  const eventsTop = height - sizes.events - sizes.below;
  pen.textBaseline = "middle";
  pen.font = `11px ${look.font}`;
  pen.fillStyle = look.muted;
  what.channels.forEach((channel, i) => {
    const y = sizes.axis + i * (sizes.lane + sizes.apart);
    pen.fillText(strings.channelShort(channel.channel), 8, y + sizes.lane / 2 + 0.5);
  });
  pen.fillText(strings.eventsLane, 8, eventsTop + sizes.events / 2, gutter - 10);

  pen.save();
  pen.translate(gutter, 0);
  pen.beginPath();
  pen.rect(0, 0, view.width, height);
  pen.clip();
  what.channels.forEach((channel, i) => {
    const y = sizes.axis + i * (sizes.lane + sizes.apart);
    pen.fillStyle = look.lane;
    pen.fillRect(0, y, view.width, sizes.lane);
    const bins = what.data.channel(channel.channel);
    if (bins !== undefined) drawCovered(pen, view, what.data.bins, bins.covered, y, sizes.lane, look.recorded);
  });
  drawAxis(pen, view, what.zone, look, height);
  drawSpans(pen, view, what.events, what.nowMs, eventsTop + 4, sizes.events - 8, look.event);
  if (what.data.bins !== null) drawEvents(pen, view, what.data.bins, eventsTop + 4, sizes.events - 8, look.event);
  if (what.selection !== null) drawSelection(pen, view, what.selection, look, height - sizes.below);
  if (what.hoverMs !== null) drawMoment(pen, view.x(what.hoverMs), look.faint, height, false);
  if (what.live) drawMoment(pen, view.x(what.newestMs), look.live, height, false);
  drawMoment(pen, view.x(what.timeMs), look.play, height, true);
  pen.restore();
}

// The whole card in a strip, and in it the window that the timeline shows.
export function drawOverview(canvas, width, height, look, what) {
  const { whole, view, data } = what;
  const gutter = gutterOf(width);
  const pen = prepare(canvas, width, height);
  pen.save();
  pen.translate(gutter, 0);
  const { channels } = what;
  const each = Math.max(2, Math.floor((height - 4) / Math.max(1, channels.length)) - 1);
  pen.fillStyle = look.lane;
  pen.fillRect(0, 1, whole.width, height - 2);
  channels.forEach((channel, i) => {
    const bins = data.channel(channel.channel);
    if (bins !== undefined) drawCovered(pen, whole, data.bins, bins.covered, 2 + i * (each + 1), each, look.recorded);
  });
  const left = Math.max(0, whole.x(view.from)), right = Math.min(whole.width, whole.x(view.to));
  pen.fillStyle = look.panel;
  pen.globalAlpha = 0.6;
  pen.fillRect(0, 0, left, height);
  pen.fillRect(right, 0, whole.width - right, height);
  pen.globalAlpha = 1;
  pen.strokeStyle = look.muted;
  pen.strokeRect(Math.min(left, whole.width - 4) + 0.5, 0.5, Math.max(3, right - left - 1), height - 1);
  pen.fillStyle = look.play;
  pen.fillRect(Math.round(whole.x(what.timeMs)) - 0.75, 0, 1.5, height);
  pen.restore();
}

