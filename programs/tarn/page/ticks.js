// Where the time axis has its marks, and what stands at them.
import { months } from "./strings.js";

const second = 1000, minute = 60 * second, hour = 60 * minute, day = 24 * hour;
const steps = [50, 100, 200, 500, second, 2 * second, 5 * second, 10 * second, 30 * second, minute,
  2 * minute, 5 * minute, 10 * minute, 30 * minute, hour, 2 * hour, 3 * hour, 6 * hour, 12 * hour,
  day, 2 * day, 7 * day];
const monthSteps = [1, 3, 6, 12];
const monthMs = 30.4 * day;

function label(zone, ms, step) {
  const at = zone.local(ms);
  if (step >= day) return `${at.getUTCDate()} ${months[at.getUTCMonth()].slice(0, 3)}`;
  if (step >= minute) return zone.time(ms).slice(0, 5);
  return zone.time(ms, step >= second ? 0 : step >= 100 ? 1 : 2);
}

function monthTicks(zone, from, to, count) {
  const found = [];
  const begin = zone.local(from);
  for (let month = Math.floor(begin.getUTCMonth() / count) * count; ; month += count) {
    const local = new Date(Date.UTC(begin.getUTCFullYear(), month, 1));
    const ms = zone.moment(local.getTime());
    if (ms > to) return found;
    const isYear = local.getUTCMonth() === 0;
    const text = isYear ? String(local.getUTCFullYear()) : months[local.getUTCMonth()].slice(0, 3);
    if (ms >= from) found.push({ ms, text, strong: isYear });
  }
}

// Marks between two moments, no closer than `apart` milliseconds: {ms, text, strong}. Strong ones
// begin a day or, of days and months, a month or a year.
export function ticks(zone, from, to, apart) {
  const step = steps.find((size) => size >= apart);
  if (step === undefined) {
    return monthTicks(zone, from, to, monthSteps.find((count) => count * monthMs >= apart) ?? 12);
  }
  const found = [];
  // In local time, so that they stand at whole hours and at midnight in every zone.
  const first = Math.floor((from + zone.offsetMs(from)) / step) * step;
  for (let local = first; ; local += step) {
    const ms = zone.moment(local);
    if (ms > to) return found;
    if (ms < from) continue;
    const midnight = local % day === 0;
    const strong = step >= day ? new Date(local).getUTCDate() === 1 : midnight;
    found.push({ ms, text: midnight && step < day ? label(zone, ms, day) : label(zone, ms, step), strong });
  }
}

// What the period shown is called.
export function periodTitle(zone, from, to) {
  const first = zone.local(from), last = zone.local(to);
  if (zone.date(from) === zone.date(to)) return zone.day(from);
  const monthOf = (at) => `${months[at.getUTCMonth()].slice(0, 3)} ${at.getUTCFullYear()}`;
  if (to - from > 60 * day) return `${monthOf(first)} – ${monthOf(last)}`;
  return `${first.getUTCDate()} ${monthOf(first)} – ${last.getUTCDate()} ${monthOf(last)}`;
}
