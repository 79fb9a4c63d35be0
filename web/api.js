// The web API as the page uses it: sign in and out, and calls of the
// module's rows. Every exchange ends: a time limit above the host's own
// bound for a handler (60 s, after which it answers 111) aborts the rest.
// Failures become ApiError with the sentence for the call and its code.
import { describe, local } from "./text.js";

export const CALL_TIME_LIMIT_MS = 70000;
const TOKEN_KEY = "farlink-token";
const TOKEN_HEADER = "X-Farlink-Token";
export const NOT_SIGNED_IN = 105;
export const BAD_TOKEN = 114;

export class ApiError extends Error {
  // `row` names the call ("api/version/method"); the raw code and row are
  // details, shown only on request.
  constructor(code, words, row = "") {
    super(words.sentence);
    this.code = code; // null when no answer came
    this.row = row;
    this.sentence = words.sentence;
    this.next = words.next;
  }

  // The session is gone: the way forward is to sign in again.
  get signedOut() {
    return this.code === NOT_SIGNED_IN || this.code === BAD_TOKEN;
  }

  get details() {
    return this.code === null ? "" : `${this.row} ${this.code}`.trim();
  }
}

// Answers are never stored; the page's own files are revalidated.
async function exchange(url, options, limitMs, cache = "no-store") {
  const controller = new AbortController();
  const timer = setTimeout(() => controller.abort(), limitMs);
  let response = null;
  try {
    response = await fetch(url, { ...options, signal: controller.signal, credentials: "same-origin", cache });
    return await response.json();
  } catch (error) {
    if (error.name === "AbortError") throw new ApiError(null, local("timeout"));
    throw new ApiError(null, local(response ? "unreadable" : "unreachable"));
  } finally {
    clearTimeout(timer);
  }
}

// One of the page's own files (deployment.json).
export function fetchFile(url, limitMs) {
  return exchange(url, {}, limitMs, "no-cache");
}

// The answer's data (undefined for methods that only change state), or an
// ApiError for a refusal.
async function post(path, body, headers = {}, row = "") {
  const answer = await exchange(
    path,
    {
      method: "POST",
      headers: { "Content-Type": "application/json", ...headers },
      body: JSON.stringify(body),
    },
    CALL_TIME_LIMIT_MS,
  );
  if (answer && answer.success === true) return answer.data;
  const code = answer && answer.error && answer.error.code;
  if (!Number.isInteger(code)) throw new ApiError(null, local("unreadable"));
  throw new ApiError(code, describe(code, row), row);
}

function tokenHeader() {
  const token = sessionStorage.getItem(TOKEN_KEY);
  return token ? { [TOKEN_HEADER]: token } : {};
}

// JSON bodies keep strings strings (a password "123456" stays text).
export function call(api, version, method, params = {}) {
  return post(
    "/webapi/entry.cgi",
    { ...params, api, version: String(version), method },
    tokenHeader(),
    `${api}/${version}/${method}`,
  );
}

// The host's latest audit records, oldest first.
export async function auditRecords() {
  const data = await post("/webapi/audit.cgi", {}, tokenHeader());
  return data && Array.isArray(data.records) ? data.records : [];
}

export async function signIn(account, passwd) {
  const data = await post("/webapi/auth.cgi", { account, passwd });
  // A host without anti-forgery tokens answers only the session id.
  if (data && typeof data.token === "string") sessionStorage.setItem(TOKEN_KEY, data.token);
  else sessionStorage.removeItem(TOKEN_KEY);
}

// The page forgets the session whatever the host answers.
export async function signOut() {
  try {
    await post("/webapi/auth.cgi", { method: "logout" }, tokenHeader());
  } finally {
    sessionStorage.removeItem(TOKEN_KEY);
  }
}
