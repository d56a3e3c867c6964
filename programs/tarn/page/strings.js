// Every text that a person reads on the page, and how numbers are put into words.

export const months = ["January", "February", "March", "April", "May", "June", "July", "August",
  "September", "October", "November", "December"];
export const weekdays = ["Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"];

const plural = (count, one, many) => `${count.toLocaleString("en")} ${count === 1 ? one : many}`;

export const strings = {
  title: "Tarn",
  loading: "Loading…",
  unreachable: "The server does not answer. Trying again…",
  refused: (why) => `Not done: ${why}`,
  cardName: (name, version) => `${name} · tarn ${version}`,

  // Head.
  channels: "Channels shown",
  channel: "Channel",
  channelName: (number) => `Channel ${number}`,
  channelShort: (number) => `Ch ${number}`,
  live: "Live",
  liveTip: "Follow what is recorded now (L)",
  notLive: "Nothing is being recorded",
  keysHelp: "Keys",

  // Pictures.
  pictures: "Pictures",
  nothingHere: "Nothing recorded here",
  nothingYet: "No recordings on this card yet",
  noChannel: "No channel is shown. Choose one above.",
  cannotDecode: "This browser cannot show this video",
  pieceMissing: "A piece of this recording cannot be read",
  video: (number) => `Video of channel ${number}`,

  // Controls.
  controls: "Playback",
  shownTime: "Shown time: ",
  goTo: "Go to a time",
  goToTime: "Date and time of the recorder",
  show: "Show",
  cancel: "Cancel",
  close: "Close",
  play: "Play",
  pause: "Pause",
  stepBack: "One picture back",
  stepForward: "One picture forward",
  previousEvent: "Previous event",
  nextEvent: "Next event",
  noEvent: "No event there",
  speed: "Speed",
  speedName: (speed) => `${speed === 0.5 ? "½" : speed} ×`,
  sound: "Sound",
  mute: "Mute (M)",
  volume: "Volume",
  soundOf: "Channel that is heard",
  noSound: "No sound was recorded",
  soundNotPlayed: (channels, codecs) => `${channels}: browsers do not play ${codecs}; a download has it`,
  codecName: (codec) => ({ alaw: "G.711 A-law", mulaw: "G.711 µ-law" })[codec] ?? codec,
  selection: "Selection",
  select: "Select",
  selectTip: "Drag on the timeline to select a period",
  selectHint: "Drag on the timeline",
  clearSelection: "Clear the selection",
  download: "Download",
  saveRange: (from, to, length) => `${from} to ${to} (${length})`,
  saveKind: "What",
  saveMovie: "Video",
  saveEvidence: "Folder for a case (.zip)",
  allChannels: "All channels",
  saveNote: {
    movie: "Pictures and sound as they were recorded, as .mp4, from the key picture at or before the beginning to the next one behind the end.",
    evidence: "Video, list, system log, sums of every file, and a report that opens without a network.",
  },
  saveSealed: "Sealed with this server's key.",
  saveBegins: "It is being made…",
  saveMakes: (count) => `It is being made: ${plural(count, "picture or piece of sound", "pictures and pieces of sound")} so far`,
  saveMade: "It is made, and on its way.",
  saveLacks: (texts) => `It is on its way, and lacks something: ${texts.join("; ")}`,
  saveTooLong: "At most a day can be downloaded at once.",

  // Timeline.
  timeline: "Timeline",
  position: "Time on the card",
  zoom: "Zoom",
  zoomIn: "Zoom in",
  zoomOut: "Zoom out",
  wholeCard: "All",
  eventsLane: "Events",
  hoverEvents: (count) => plural(count, "event", "events"),

  // Beside the video.
  beside: "Events, log and card",
  events: "Events",
  log: "Log",
  card: "Card",
  noEvents: "No events in the period shown",
  moreEvents: (shown, count) => `${shown.toLocaleString("en")} of ${count.toLocaleString("en")} events; zoom in to see all`,
  trigger: (number) => `Trigger ${number}`,
  eventRuns: "runs",
  noLog: "No lines of the log up to here",
  logLeftOut: "Older lines are left out",

  // Card.
  space: "Room for video",
  spaceUsed: (used, all, share) => `${used} of ${all} · ${share} %`,
  chunks: (used, all) => `${used} of ${all} ring files`,
  device: "Card",
  oldest: "Oldest picture",
  newest: "Newest picture",
  oldestShort: "Oldest",
  newestShort: "Newest",
  keeps: "Reaches back",
  counts: "Holds",
  held: (recordings, events) => `${plural(recordings, "recording", "recordings")}, ${plural(events, "event", "events")}`,
  wear: "Written by a recorder",
  worn: (bytes, flushes) => `${strings.bytes(bytes)} since it began, ${plural(flushes, "flush", "flushes")}`,
  wornBy: (causes) => causes.filter(({ bytes }) => bytes > 0)
    .map(({ cause, bytes }) => `${cause} ${strings.bytes(bytes)}`).join(", "),
  slowFlushes: "Slow flushes",
  slow: (slow, all) => `${slow.toLocaleString("en")} of ${all.toLocaleString("en")} took longer than half a second`,
  none: "none",
  problems: "Problems",
  noProblems: "No problems known",
  check: "Check",
  startCheck: "Check this card",
  checkAgain: "Check again",
  checkNever: "Not checked yet. A check reads every record and changes nothing.",
  checkNotAllowed: "This server reads only: a check cannot be started here.",
  checkStarting: "Beginning…",
  checkRuns: (done, total) => `${done} of ${plural(total, "recording", "recordings")} looked at`,
  checkEnded: (when) => `Ended ${when}`,
  findings: (count) => (count === 0 ? "Nothing was found" : plural(count, "finding", "findings")),
  findingsShown: (shown, count) => `The first ${shown} of ${count} are listed`,
  showThere: "Show",
  perChannel: "Channels",
  recordings: "Recordings",
  running: "records now",
  withSound: "sound",

  // Lengths and sizes.
  bytes: (count) => {
    const units = ["B", "KiB", "MiB", "GiB", "TiB"];
    let unit = 0;
    for (; count >= 1024 && unit < units.length - 1; ++unit) count /= 1024;
    return `${unit === 0 || count >= 100 ? Math.round(count) : count.toFixed(1)} ${units[unit]}`;
  },
  length: (ms) => {
    const seconds = ms / 1000;
    if (seconds < 60) return `${seconds.toFixed(seconds < 10 ? 1 : 0)} s`;
    const parts = [[86400, "d"], [3600, "h"], [60, "min"], [1, "s"]];
    const first = parts.findIndex(([size]) => seconds >= size);
    return parts.slice(first, first + 2).map(([size, unit], i) => {
      const rest = i === 0 ? seconds : seconds % parts[first][0];
      return `${Math.floor(rest / size)} ${unit}`;
    }).join(" ");
  },
};

// What the list of keys shows, in its order.
export const keys = [
  ["Space", "Play or pause"],
  [",  .", "One picture back, forward"],
  ["−  +", "Zoom out, in"],
  ["←  →", "5 seconds back, on; on the timeline: a fiftieth of what it shows"],
  ["Shift ←  →", "Move the timeline"],
  ["Home  End", "Oldest, newest picture"],
  ["P  N", "Previous, next event"],
  ["<  >", "Slower, faster"],
  ["M", "Sound off, on"],
  ["Shift ↑  ↓", "Louder, softer"],
  ["[  ]", "Begin, end the selection here"],
  ["Esc", "Clear the selection"],
  ["D", "Download the selection"],
  ["L", "Live"],
  ["0", "Show all of the card"],
  ["G", "Go to a time"],
  ["F", "Pictures on the whole screen"],
  ["?", "These keys"],
];
