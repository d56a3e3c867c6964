// What the page asks the server (docs/openapi.json). Every function throws an Error whose message is a
// sentence for a person, with isForNow where the same may be answered a moment later, or what an aborted
// fetch throws.

const addressOf = (path, question) => {
  const words = new URLSearchParams();
  for (const [name, value] of Object.entries(question)) {
    if (value !== undefined && value !== null) words.set(name, String(value));
  }
  const text = words.toString();
  return text === "" ? path : `${path}?${text}`;
};

async function answer(path, options) {
  const response = await fetch(path, options);
  if (response.ok) return response;
  let why = `${response.status} ${response.statusText}`;
  try {
    why = (await response.json()).error ?? why;
  } catch {
    // Not the server's own words, as of a proxy between.
  }
  throw Object.assign(new Error(why), { isForNow: response.status === 429 || response.status >= 500 });
}

const json = async (path, question = {}, signal = undefined) =>
  (await answer(addressOf(path, question), { signal })).json();

export const api = {
  card: () => json("/api/card"),
  health: () => json("/api/health"),
  timeline: (question, signal) => json("/api/timeline", question, signal),
  events: (question, signal) => json("/api/events", question, signal),
  log: (question, signal) => json("/api/log", question, signal),
  pictures: (question, signal) => json("/api/pictures", question, signal),
  segments: (question, signal) => json("/api/segments", question, signal),
  check: () => json("/api/check"),
  startCheck: async () => (await answer("/api/check", { method: "POST" })).json(),
  bytes: async (path, signal) => (await answer(path, { signal })).arrayBuffer(),
  thumbnailAddress: (channel, at, width) => addressOf("/api/thumbnail", { channel, at, width }),
  beginDownload: async (question) => (await answer(addressOf("/api/downloads", question), { method: "POST" })).json(),
  download: (id) => json("/api/downloads", { id }),
  downloadAddress: (id) => addressOf("/api/download", { id }),
  giveUpDownload: (id) => answer(addressOf("/api/download", { id }), { method: "POST" }),
  exportAddress: (channel, from, to) => addressOf("/api/export", { channel, from, to }),

  // Tells what happens; told(name, data) for each. The browser connects again by itself.
  listen(told) {
    const source = new EventSource("/api/stream");
    for (const name of ["recording", "event", "safe", "card"]) {
      source.addEventListener(name, (message) => told(name, JSON.parse(message.data)));
    }
    return source;
  },
};
