// What a code or a relay daemon's word means to a person: the sentence and
// the way forward. The one table lives in the API reference (openapi.json,
// x-error-codes and x-daemon-words), which the reference page renders too;
// this module loads it once.

const REFERENCE = "openapi.json";
const LOAD_TIME_LIMIT_MS = 15000;

let table = new Map();
let words = new Map();
let loading = null;

// Failures that never reached an answer, and the page's own: they have no
// code of their own.
export const LOCAL = {
  unreachable: {
    sentence: "The box cannot be reached: the network is down or the host has stopped.",
    next: "Check the connection to the box, then try again.",
  },
  timeout: {
    sentence: "The box did not answer in time.",
    next: "Try again; if it happens again, check the box's network connection.",
  },
  broken: {
    sentence: "Something went wrong on this page.",
    next: "Reload the page.",
  },
  unreadable: {
    sentence: "The box sent an answer the page cannot read.",
    next: "Reload the page; if it happens again, the host may need a restart.",
  },
};

export function loadCodes(fetchJson) {
  if (!loading) {
    loading = fetchJson(REFERENCE, LOAD_TIME_LIMIT_MS)
      .then((document) => {
        table = new Map(document["x-error-codes"].map((entry) => [entry.code, entry]));
        words = new Map(document["x-daemon-words"].map((entry) => [entry.word, entry]));
      })
      .catch(() => {
        loading = null; // asked again on the next failure
      });
  }
  return loading;
}

// {sentence, next} for a code; a code the table lacks still gets words.
export function describe(code) {
  const entry = table.get(code);
  if (entry) return { sentence: entry.sentence, next: entry.next };
  return {
    sentence: `The box answered with code ${code}.`,
    next: "The reference (link at the top) lists the codes; reload the page to load their descriptions.",
  };
}

// A relay daemon's state or error word: {word, kind, fine, code, meaning,
// sentence, next}; a word the table lacks is shown as it came.
export function describeWord(word) {
  return (
    words.get(word) || {
      word,
      kind: "status",
      fine: false,
      meaning: word,
      sentence: `The relay daemon reports "${word}".`,
      next: "The reference (link at the top) lists the words the page knows.",
    }
  );
}

// The error words that status answers as this code.
export function wordsForCode(code) {
  return [...words.values()].filter((entry) => entry.kind === "error" && entry.code === code);
}
