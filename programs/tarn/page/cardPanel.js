// The card's health: room, how far back it reaches, what is wrong, and a check with its progress.
import { api } from "./api.js";
import { strings } from "./strings.js";

const again = 500;           // ms between two questions how far a check is
const refreshMs = 10000;

const make = (name, properties = {}, ...children) => {
  const element = Object.assign(document.createElement(name), properties);
  element.append(...children.filter((child) => child !== null));
  return element;
};

export class CardPanel {
  // told: {seek(ms), failed(error)}.
  constructor(state, told) {
    this.state = state;
    this.told = told;
    this.panel = document.getElementById("panel-card");
    this.facts = make("dl");
    this.problems = make("div", { className: "problems" });
    this.button = make("button", { type: "button", textContent: strings.startCheck });
    this.button.addEventListener("click", () => this.start());
    this.progress = make("progress", { hidden: true });
    this.progress.setAttribute("aria-label", strings.check);
    this.said = make("p", { className: "quiet" });
    this.said.setAttribute("role", "status");
    this.findings = make("ul", { className: "findings" });
    this.channels = make("table");
    this.panel.append(
      make("h2", { textContent: strings.card }), this.facts,
      make("h2", { textContent: strings.perChannel }), this.channels,
      make("h2", { textContent: strings.problems }), this.problems,
      make("h2", { textContent: strings.check }),
      make("div", { className: "check" }, this.button, this.progress, this.said), this.findings);
  }

  // Asks while it is in sight.
  need() {
    clearTimeout(this.timer);
    if (this.panel.hidden) return;
    this.ask();
    this.timer = setTimeout(() => this.need(), refreshMs);
  }

  async ask() {
    try {
      const health = await api.health();
      this.showFacts(health);
      this.showChannels();
      this.showProblems(health.problems);
      this.showCheck(health.check);
    } catch (error) {
      this.told.failed(error);
    }
  }

  showFacts({ space, oldestMs, newestMs, keepsSeconds, recorders }) {
    const { zone, card } = this.state;
    const when = (ms) => (ms === null ? strings.none : zone.dateTime(ms));
    const meter = make("meter", { min: 0, max: 1, value: space.usedShare });
    meter.setAttribute("aria-label", strings.space);
    const facts = [
      [strings.space, make("div", {}, meter, make("span", {
        textContent: strings.spaceUsed(strings.bytes(space.usedBytes), strings.bytes(space.videoBytes),
          Math.round(space.usedShare * 100)),
      }))],
      ["", strings.chunks(space.chunksInUse, space.chunks)],
      [strings.device, `${strings.bytes(space.deviceBytes)} · ${card.identity}`],
      [strings.oldest, when(oldestMs)],
      [strings.newest, when(newestMs)],
      [strings.keeps, strings.length(keepsSeconds * 1000)],
      [strings.counts, strings.held(card.recordings, card.events)],
      ...recorders.flatMap(({ wear, flushes, slowFlushes }) => [
        [strings.wear, strings.worn(wear.reduce((sum, { bytes }) => sum + bytes, 0), flushes)],
        ["", strings.wornBy(wear)],
        [strings.slowFlushes, strings.slow(slowFlushes, flushes)],
      ]),
    ];
    this.facts.replaceChildren(...facts.flatMap(([name, value]) =>
      name === "" ? [make("dd", {}, value)] : [make("dt", { textContent: name }), make("dd", {}, value)]));
  }

  showChannels() {
    const { zone, card } = this.state;
    const head = [strings.channel, strings.recordings, strings.oldestShort, strings.newestShort]
      .map((text) => make("th", { textContent: text, scope: "col" }));
    const rows = card.channels.map((channel) => make("tr", {},
      make("th", { scope: "row" }, String(channel.channel),
        channel.running ? make("span", { className: "runs", textContent: strings.running }) : null),
      make("td", { textContent: channel.recordings.toLocaleString("en") + (channel.sound ? ` + ${strings.withSound}` : "") }),
      make("td", { textContent: zone.dateTime(channel.oldestMs) }),
      make("td", { textContent: zone.dateTime(channel.newestMs) })));
    this.channels.replaceChildren(make("thead", {}, make("tr", {}, ...head)), make("tbody", {}, ...rows));
  }

  showProblems(problems) {
    const list = problems.length === 0
      ? make("p", { className: "good", textContent: strings.noProblems })
      : make("ul", {}, ...problems.map((text) => make("li", { textContent: text })));
    this.problems.replaceChildren(list);
  }

  // The check.

  async start() {
    this.button.disabled = true;
    this.said.textContent = strings.checkStarting;
    try {
      this.showCheck(await api.startCheck());
    } catch (error) {
      this.said.textContent = strings.refused(error.message);
      this.button.disabled = false;
    }
  }

  showCheck(check) {
    const running = check.state === "running";
    this.button.disabled = running || this.state.card.readOnly;
    this.button.textContent = check.state === "none" || running ? strings.startCheck : strings.checkAgain;
    this.progress.hidden = !running;
    if (running && check.total > 0) {
      this.progress.max = check.total;
      this.progress.value = check.done;
    } else {
      this.progress.removeAttribute("value");
    }
    this.panel.dataset.check = check.state;
    this.said.textContent = this.checkText(check);
    this.showFindings(check);
    clearTimeout(this.checkTimer);
    if (running) this.checkTimer = setTimeout(() => this.askCheck(), again);
  }

  async askCheck() {
    try {
      this.showCheck(await api.check());
    } catch (error) {
      this.told.failed(error);
      this.checkTimer = setTimeout(() => this.askCheck(), again * 4);
    }
  }

  checkText(check) {
    if (check.state === "none") return this.state.card.readOnly ? strings.checkNotAllowed : strings.checkNever;
    if (check.state === "running") return check.total === 0 ? strings.checkStarting : strings.checkRuns(check.done, check.total);
    const ended = check.endedMs === null ? "" : ` ${strings.checkEnded(this.state.zone.dateTime(check.endedMs))}.`;
    if (check.state === "failed") return `${check.meaning}${ended}`;
    return `${strings.findings(check.findingCount)}. ${check.meaning}${ended}`;
  }

  showFindings(check) {
    const rows = check.findings.map((finding) => {
      const seek = finding.fromMs === null ? null
        : make("button", { type: "button", textContent: `${strings.showThere} ${this.state.zone.dateTime(finding.fromMs)}` });
      seek?.addEventListener("click", () => this.told.seek(finding.fromMs));
      return make("li", {}, make("strong", { textContent: finding.text }),
        make("span", { textContent: finding.meaning }),
        make("span", { className: "quiet", textContent: finding.consequence }), seek);
    });
    if (check.findingCount > rows.length) {
      rows.push(make("li", { className: "quiet", textContent: strings.findingsShown(rows.length, check.findingCount) }));
    }
    this.findings.replaceChildren(...rows);
  }
}
