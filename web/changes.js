// The host's audit records in the administrator's words: what changed, or
// what was refused and why. The record as the host wrote it (call, result,
// parameters with secrets already redacted) is kept for the details.
import { describe, t } from "./text.js";

const FARLINK = "ORVO.Core.Farlink";

// Parameters come as the client sent them: a JSON body keeps booleans, a
// form sends "true".
const isOn = (value) => value === true || value === "true";
const onOff = (value) => t(isOn(value) ? "on" : "off");

// Per call: its kind (for the filter) and its sentence from the parameters.
const CALLS = {
  [`${FARLINK}/set`]: ["relay", (p) => t(isOn(p.enabled) ? "changeRelayOn" : "changeRelayOff")],
  [`${FARLINK}/set_misc_config`]: ["relay", (p) => t("changeTunnel", { value: onOff(p.relay_enabled) })],
  [`${FARLINK}/set_server_alias`]: [
    "alias",
    (p) => t(isOn(p.force) ? "changeAliasForced" : "changeAlias", { alias: p.server_alias }),
  ],
  [`${FARLINK}.Upnp/set`]: ["settings", (p) => t(isOn(p.enabled) ? "changeUpnpOn" : "changeUpnpOff")],
  [`${FARLINK}.SNI/set`]: ["settings", (p) => t("changeSni", { values: sniValues(p) })],
  [`${FARLINK}.Permission/set`]: [
    "settings",
    (p) => t("changeServices", { count: Array.isArray(p.services) ? p.services.length : "?" }),
  ],
};

function sniValues(params) {
  return isOn(params.enabled) ? `${t("on")}, ${params.domain_name || ""}` : t("off");
}

function timeOf(record, language) {
  // The host writes microseconds; a date keeps milliseconds.
  const time = new Date(String(record.time).replace(/(\.\d{3})\d*Z$/, "$1Z"));
  return Number.isNaN(time.getTime()) ? String(record.time) : time.toLocaleString(language);
}

// "error=2905" and "error=110,SIGSEGV" -> the code; "ok" -> null.
function codeOf(result) {
  const found = /^error=(\d+)/.exec(String(result));
  return found ? Number(found[1]) : null;
}

function detailsOf(record) {
  const call = record.event === "login" ? "auth.cgi" : `${record.api} v${record.version} ${record.method}`;
  const params = record.params === undefined ? "" : ` ${JSON.stringify(record.params)}`;
  return `${record.client || ""} ${call} ${record.result}${params}`.trim();
}

function loginWords(record) {
  const words = { success: "changeLogin", failure: "changeLoginRefused", throttled: "changeLoginThrottled" };
  return { kind: "login", failed: record.result !== "success", text: t(words[record.result] || "changeLoginRefused") };
}

// {time, text, kind, failed, details} for one record.
export function changeWords(record, language) {
  const base = { time: timeOf(record, language), details: detailsOf(record) };
  if (record.event === "login") return { ...base, ...loginWords(record) };
  const params = record.params && typeof record.params === "object" ? record.params : {};
  const [kind, sentence] = CALLS[`${record.api}/${record.method}`] || ["settings", () => t("changeOther")];
  const text = sentence(params);
  if (record.result === "ok") return { ...base, kind, failed: false, text };
  const code = codeOf(record.result);
  const words =
    code === null
      ? { sentence: t("changeFailedUnknown"), next: "" }
      : describe(code, `${record.api}/${record.version}/${record.method}`);
  return { ...base, kind, failed: true, text: t("changeFailed", { change: text, sentence: words.sentence }) };
}

// The newest SNI change the box made, as {date, values}: the module has no
// reading of SNI, so the audit record is the only word on it.
export function lastSniChange(records, language) {
  const last = [...records]
    .reverse()
    .find((record) => record.event === "call" && record.api === `${FARLINK}.SNI` && record.result === "ok");
  if (!last) return null;
  const params = last.params && typeof last.params === "object" ? last.params : {};
  return { date: timeOf(last, language), values: sniValues(params) };
}
