// Every sentence the page shows, in the person's language: one catalogue
// per language beside the page (text-en.json, text-zh-CN.json). The codes'
// and the daemon words' English sentences are those of the API reference
// (openapi.json); the browser test holds the two to each other. A call's
// own sentence for a code (the same code means different causes for a file
// write and a control-server exchange) comes before the code's.

export const LANGUAGES = ["en", "zh-CN"];
const LANGUAGE_KEY = "farlink-language";
const LOAD_TIME_LIMIT_MS = 15000;

let texts = { ui: {}, codes: {}, calls: [], words: {}, local: {} };
let language = "en";

// The page's own sentence when even the catalogue could not be read.
const NO_CATALOGUE = "The page could not load its texts. Reload the page.";

export function chosenLanguage() {
  const stored = localStorage.getItem(LANGUAGE_KEY);
  if (LANGUAGES.includes(stored)) return stored;
  const chinese = (navigator.languages || [navigator.language]).find((tag) => /^zh\b/i.test(tag || ""));
  return chinese ? "zh-CN" : "en";
}

export function currentLanguage() {
  return language;
}

// Static files are revalidated (the host sends a validator), not refetched.
export async function loadTexts(wanted, remember = false) {
  const controller = new AbortController();
  const timer = setTimeout(() => controller.abort(), LOAD_TIME_LIMIT_MS);
  try {
    const answer = await fetch(`text-${wanted}.json`, { signal: controller.signal, credentials: "same-origin" });
    if (!answer.ok) throw new Error(`catalogue ${wanted}: ${answer.status}`);
    texts = await answer.json();
    language = wanted;
    if (remember) localStorage.setItem(LANGUAGE_KEY, wanted);
  } finally {
    clearTimeout(timer);
  }
}

// A text by its key, with {name} filled from `values`.
export function t(key, values = {}) {
  const text = texts.ui[key];
  return text === undefined ? key : fill(text, values);
}

// The page's fixed texts: every element that names its text by key.
export function applyTexts(root = document) {
  document.documentElement.lang = language;
  document.title = t("title");
  for (const element of root.querySelectorAll("[data-t]")) element.textContent = t(element.dataset.t);
  for (const element of root.querySelectorAll("[data-t-label]")) {
    element.setAttribute("aria-label", t(element.dataset.tLabel));
  }
}

function fill(text, values) {
  return text.replace(/\{(\w+)\}/g, (whole, name) => (name in values ? String(values[name]) : whole));
}

// The page's own findings and failures that never reached an answer:
// {sentence, next}.
export function local(name, values = {}) {
  const words = texts.local[name];
  if (!words) return { sentence: NO_CATALOGUE, next: "" };
  return { sentence: fill(words.sentence, values), next: fill(words.next, values) };
}

// {sentence, next} for `code` answered by `row` ("api/version/method").
export function describe(code, row = "") {
  const group = texts.calls.find((entry) => entry.rows.includes(row) && entry.codes[code]);
  if (group) return group.codes[code];
  return texts.codes[code] || { sentence: t("unknownCode", { code }), next: t("unknownCodeNext") };
}

// A relay daemon's state or error word: {kind, fine, code, meaning,
// sentence, next}; a word the catalogue lacks is shown as it came.
export function describeWord(word) {
  return (
    texts.words[word] || {
      kind: "status",
      fine: false,
      meaning: String(word),
      sentence: t("unknownWord", { word }),
      next: t("unknownCodeNext"),
    }
  );
}
