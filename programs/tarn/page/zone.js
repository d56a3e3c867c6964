// The recorder's wall clock. Moments are milliseconds since 1970 UTC everywhere on the page; only here
// they become local times, and the other way round.
import { months, weekdays } from "./strings.js";

const pad = (number, digits = 2) => String(number).padStart(digits, "0");

export class Zone {
  // offsetMinutes: local time minus UTC; changes: {fromMs, offsetMinutes} in order, where the server
  // tells when the offset changes (summer time), else empty.
  constructor(offsetMinutes = 0, changes = []) {
    this.offsetMinutes = offsetMinutes;
    this.changes = changes;
  }

  offsetMs(ms) {
    let minutes = this.changes.length > 0 ? this.changes[0].offsetMinutes : this.offsetMinutes;
    for (const change of this.changes) if (change.fromMs <= ms) minutes = change.offsetMinutes;
    return minutes * 60000;
  }

  // A Date whose UTC fields are the local ones of the moment.
  local(ms) {
    return new Date(Math.floor(ms) + this.offsetMs(ms));
  }

  // The moment of a local time that is given as if it were UTC.
  moment(localMs) {
    const guess = localMs - this.offsetMs(localMs);
    return localMs - this.offsetMs(guess);
  }

  date(ms) {
    const at = this.local(ms);
    return `${at.getUTCFullYear()}-${pad(at.getUTCMonth() + 1)}-${pad(at.getUTCDate())}`;
  }

  // digits: of the second, 0 to 3.
  time(ms, digits = 0) {
    const at = this.local(ms);
    const text = `${pad(at.getUTCHours())}:${pad(at.getUTCMinutes())}:${pad(at.getUTCSeconds())}`;
    return digits === 0 ? text : `${text}.${pad(at.getUTCMilliseconds(), 3).slice(0, digits)}`;
  }

  offset(ms) {
    const minutes = this.offsetMs(ms) / 60000;
    const size = Math.abs(minutes);
    return `${minutes < 0 ? "−" : "+"}${pad(Math.floor(size / 60))}:${pad(size % 60)}`;
  }

  dateTime(ms, digits = 0) {
    return `${this.date(ms)} ${this.time(ms, digits)}`;
  }

  // As "Sun 1 March 2026".
  day(ms) {
    const at = this.local(ms);
    return `${weekdays[at.getUTCDay()]} ${at.getUTCDate()} ${months[at.getUTCMonth()]} ${at.getUTCFullYear()}`;
  }

  // For an input of type datetime-local, and back; NaN where the text is no time.
  inputValue(ms) {
    return `${this.date(ms)}T${this.time(ms)}`;
  }

  fromInput(text) {
    return this.moment(Date.parse(`${text}Z`));
  }
}
