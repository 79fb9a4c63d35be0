// The admin page: every section's reading and changing of the relay. Text
// that comes from the box is only ever set as text (textContent, value).
import { ApiError, auditRecords, call, signIn, signOut } from "./api.js";
import { diagnose } from "./doctor.js";
import {
  LANGUAGES,
  applyTexts,
  chosenLanguage,
  currentLanguage,
  describe,
  describeWord,
  loadTexts,
  local,
  t,
} from "./text.js";
import { changeWords, lastSniChange } from "./changes.js";

const FARLINK = "ORVO.Core.Farlink";
const STATUS_PERIOD_MS = 15000;
const CHANGES_PERIOD_MS = 60000;
const CHANGES_SHOWN = 10;
const SUCCESS = 2908;
const ALIAS_TAKEN = 2904;
const ALIAS_PATTERN = /^[A-Za-z][A-Za-z0-9-]*$/;
const LAST_CONNECTED_KEY = "farlink-last-connected";
const SETUP_ASKED_KEY = "farlink-setup-asked";

const $ = (id) => document.getElementById(id);
const outcomeOf = (name) => document.querySelector(`[data-for="${name}"]`);
let signedIn = false;
let statusRunning = false;
let changesAsked = 0;
// The latest readings the summary and the set-up guide are made of.
const readings = { status: null, settings: null, records: [], doctorClear: false };

// An outcome: its sentence, and the raw code and call only in a disclosure.
function say(name, kind, text, details = "") {
  const element = outcomeOf(name);
  element.dataset.kind = kind;
  element.replaceChildren(text);
  if (details) element.append(disclosure(details));
}

function disclosure(text) {
  const details = document.createElement("details");
  const summary = document.createElement("summary");
  summary.textContent = t("details");
  const body = document.createElement("p");
  body.textContent = text;
  details.append(summary, body);
  return details;
}

function wordsOf(error) {
  if (error instanceof ApiError) return error;
  console.error(error);
  return local("broken");
}

function sentenceOf(words) {
  return `${words.sentence} ${words.next || ""}`.trim();
}

// Every failure ends here: its sentence and way forward in the section, and
// the sign-in form when the session is gone.
function report(name, error) {
  const words = wordsOf(error);
  say(name, "error", sentenceOf(words), words.details);
  if (error instanceof ApiError && error.signedOut) showSignIn(sentenceOf(words));
}

// Runs one action with its controls disabled, so that it cannot be sent
// twice, and its outcome in words.
async function run(name, controls, busyText, work) {
  if (controls.some((control) => control.disabled)) return;
  controls.forEach((control) => (control.disabled = true));
  say(name, "busy", busyText);
  const started = Date.now();
  // A long wait says how long it has lasted, so it never looks stuck.
  const ticker = setInterval(
    () => say(name, "busy", `${busyText} ${t("waited", { seconds: Math.round((Date.now() - started) / 1000) })}`),
    1000,
  );
  try {
    say(name, "ok", await work());
  } catch (error) {
    report(name, error);
  } finally {
    clearInterval(ticker);
    controls.forEach((control) => (control.disabled = false));
  }
}

// A change the box records: the recent changes are read again after it,
// whatever its outcome (a refused change is recorded too).
async function change(name, controls, busyText, work) {
  await run(name, controls, busyText, work);
  refreshChanges();
}

function submitButton(form) {
  return form.querySelector("button[type=submit]");
}

function onSubmit(id, action) {
  $(id).addEventListener("submit", (event) => {
    event.preventDefault();
    action(event.target);
  });
}

function show(text) {
  return text === undefined || text === null || text === "" ? t("none") : String(text);
}

function setFacts(list, entries) {
  list.replaceChildren();
  for (const [key, value] of entries) {
    const term = document.createElement("dt");
    term.textContent = key;
    const detail = document.createElement("dd");
    detail.textContent = typeof value === "object" ? JSON.stringify(value) : show(value);
    list.append(term, detail);
  }
}

// --- language ----------------------------------------------------------------

function languageButton() {
  const other = LANGUAGES.find((language) => language !== currentLanguage());
  $("language").lang = other;
  $("language").textContent = t(`language-${other}`);
}

$("language").addEventListener("click", async () => {
  const other = LANGUAGES.find((language) => language !== currentLanguage());
  try {
    await loadTexts(other, true);
  } catch (error) {
    return say("status", "error", sentenceOf(local("unreachable")));
  }
  applyTexts();
  languageButton();
  renderSummary();
  renderChanges();
  renderSetup();
});

// --- signing in and out --------------------------------------------------

function showSignIn(message) {
  signedIn = false;
  $("admin").hidden = true;
  $("sign-out").hidden = true;
  $("sign-in").hidden = false;
  $("page-message").textContent = message || "";
  $("page-message").hidden = !message;
  $("password").focus();
}

// `settings`: the get v2 answer the session check already read.
function showAdmin(settings) {
  signedIn = true;
  $("sign-in").hidden = true;
  $("page-message").hidden = true;
  $("admin").hidden = false;
  $("sign-out").hidden = false;
  $("summary-title").focus(); // keyboard users start at the summary
  refreshAll(settings);
}

onSubmit("sign-in-form", (form) =>
  run("sign-in", [submitButton(form)], t("signingIn"), async () => {
    await signIn($("account").value, $("password").value);
    $("password").value = "";
    showAdmin();
    return "";
  }),
);

$("sign-out").addEventListener("click", async () => {
  let confirmed = true;
  try {
    await signOut();
  } catch (error) {
    confirmed = false;
  }
  showSignIn("");
  say("sign-in", confirmed ? "ok" : "error", t(confirmed ? "signedOut" : "signOutUnconfirmed"));
});

// --- the summary ---------------------------------------------------------------

function addressOf(settings) {
  return settings && settings.server_alias && settings.domain
    ? `https://${settings.server_alias}.${settings.domain}`
    : "";
}

// Exactly one of off, starting, reachable or a problem, from the latest
// readings: {state, text, address?}.
function summaryOf({ status, settings }) {
  const problem = (words) => ({ state: "problem", text: t("stateProblem", { sentence: sentenceOf(words) }) });
  if (status instanceof ApiError) return problem(status);
  if (!status || !settings) return { state: "unknown", text: t("notCheckedYet") };
  if (settings.enabled !== true) return { state: "off", text: t("stateOff") };
  if (status.status === "connected") {
    const address = addressOf(settings);
    return address ? { state: "reachable", text: t("stateReachable"), address } : problem(local("noAlias"));
  }
  if (status.status === "connecting") return { state: "starting", text: t("stateStarting") };
  if (status.status === "not_running") return problem(local("notRunning"));
  return problem(describeWord(status.status));
}

function renderSummary() {
  const { state, text, address } = summaryOf(readings);
  $("summary-state").dataset.state = state;
  $("summary-text").textContent = text;
  $("summary-address").hidden = $("copy-address").hidden = !address;
  $("summary-address").textContent = address || "";
  $("summary-address").href = address || "#";
  $("summary-doctor").hidden = state !== "problem";
  const seen = localStorage.getItem(LAST_CONNECTED_KEY);
  $("summary-seen").textContent = seen
    ? t("lastSeen", { time: new Date(seen).toLocaleString(currentLanguage()) })
    : t("neverSeen");
  $("setup-open").hidden = !$("setup").hidden;
}

$("copy-address").addEventListener("click", async () => {
  try {
    await navigator.clipboard.writeText($("summary-address").textContent);
    say("status", "ok", t("copied"));
  } catch (error) {
    getSelection().selectAllChildren($("summary-address"));
    say("status", "ok", t("copyByHand"));
  }
});

function goTo(section) {
  const heading = $(`${section}-title`);
  heading.scrollIntoView();
  heading.focus();
}

$("summary-doctor").addEventListener("click", () => {
  goTo("doctor");
  $("doctor-run").click();
});

// --- reading ---------------------------------------------------------------

async function refreshStatus() {
  if (statusRunning || !signedIn) return;
  statusRunning = true;
  try {
    const data = await call(FARLINK, 1, "status");
    readings.status = data;
    $("daemon-status").textContent = show(data.status);
    $("alias-status").textContent = show(data.alias_status);
    if (data.status === "connected") localStorage.setItem(LAST_CONNECTED_KEY, new Date().toISOString());
    say("status", "ok", "");
  } catch (error) {
    readings.status = error instanceof ApiError ? error : null;
    $("daemon-status").textContent = error instanceof ApiError ? error.details : "";
    $("alias-status").textContent = "";
    if (error instanceof ApiError && error.signedOut) report("status", error);
  } finally {
    $("status-time").textContent = new Date().toLocaleTimeString(currentLanguage());
    statusRunning = false;
    renderSummary();
  }
}

async function refreshSettings(known) {
  try {
    const [current, first] = await Promise.all([known || call(FARLINK, 2, "get"), call(FARLINK, 1, "get")]);
    readings.settings = current;
    for (const key of ["server_alias", "server_id", "kivo_account", "domain", "ddns_domain", "region"]) {
      $(`info-${key}`).textContent = show(current[key]);
    }
    // The relay settings' own account is shown only where it differs.
    const differs = first.kivo_account !== current.kivo_account;
    $("info-v1-kivo_account").textContent = show(first.kivo_account);
    $("info-v1-label").hidden = $("info-v1-kivo_account").hidden = !differs;
    $("relay-enabled").checked = current.enabled === true;
    say("settings", "ok", "");
  } catch (error) {
    report("settings", error);
  }
  renderSummary();
  renderSetup();
}

async function refresh(name, read) {
  try {
    await read();
    say(name, "ok", "");
  } catch (error) {
    report(name, error);
  }
}

function refreshAll(settings) {
  refreshStatus();
  refreshSettings(settings);
  refresh("tunnel", async () => {
    const tunnel = await call(FARLINK, 3, "get_misc_config");
    $("tunnel-enabled").checked = Boolean(tunnel && tunnel.relay_enabled === true);
  });
  refresh("upnp", async () => {
    const upnp = await call(`${FARLINK}.Upnp`, 1, "get");
    $("upnp-enabled").checked = Boolean(upnp && upnp.enabled === true);
  });
  refreshChanges();
  refresh("services", async () => {
    const data = await call(`${FARLINK}.Permission`, 1, "get");
    renderServices(Array.isArray(data.services) ? data.services : []);
  });
}

// --- the relay ---------------------------------------------------------------

function switchRelay(enabled) {
  $("relay-confirm").hidden = true;
  const busy = t(enabled ? "switchingOn" : "switchingOff");
  change("relay", [submitButton($("relay-form")), $("relay-off")], busy, async () => {
    await call(FARLINK, 2, "set", { enabled });
    refreshStatus();
    refreshSettings();
    return t(enabled ? "relayIsOn" : "relayIsOff");
  });
}

// Switching off cuts every connection through the relay: asked first.
onSubmit("relay-form", () => {
  const enabled = $("relay-enabled").checked;
  const wasOn = readings.settings && readings.settings.enabled === true;
  if (enabled || !wasOn) return switchRelay(enabled);
  $("relay-confirm").hidden = false;
  $("relay-off").focus();
});

$("relay-off").addEventListener("click", () => switchRelay(false));
$("relay-keep").addEventListener("click", () => {
  $("relay-confirm").hidden = true;
  $("relay-enabled").checked = true;
});

$("status-refresh").addEventListener("click", refreshStatus);

onSubmit("tunnel-form", (form) => {
  const relay_enabled = $("tunnel-enabled").checked;
  change("tunnel", [submitButton(form)], t("saving"), async () => {
    await call(FARLINK, 3, "set_misc_config", { relay_enabled });
    return t(relay_enabled ? "tunnelIsOn" : "tunnelIsOff");
  });
});

// --- the server alias ----------------------------------------------------------

function bindAlias(force) {
  const alias = $("alias-name").value.trim();
  const given = $("use-given").checked;
  const params = { server_alias: alias, force };
  if (given) {
    params.kivo_account = $("kivo-account").value.trim();
    params.kivo_password = $("kivo-password").value;
  }
  const controls = [$("alias-bind"), $("alias-force")];
  change("alias", controls, t("bindingAlias"), async () => {
    if (!ALIAS_PATTERN.test(alias)) throw new ApiError(null, local("badAlias"));
    $("alias-force").hidden = true;
    $("alias-progress").hidden = false;
    try {
      await call(FARLINK, given ? 1 : 2, "set_server_alias", params);
    } catch (error) {
      // Offered only once the control server said another server holds it.
      if (error.code === ALIAS_TAKEN) $("alias-force").hidden = false;
      throw error;
    } finally {
      $("alias-progress").hidden = true;
    }
    $("kivo-password").value = "";
    refreshSettings();
    return t("aliasBound", { alias });
  });
}

onSubmit("alias-form", () => bindAlias(false));
$("alias-force").addEventListener("click", () => bindAlias(true));
$("alias-name").addEventListener("input", () => ($("alias-force").hidden = true));
function showGivenAccount() {
  $("given-account").hidden = !$("use-given").checked;
}
for (const id of ["use-bound", "use-given"]) $(id).addEventListener("change", showGivenAccount);

// --- availability and register site ------------------------------------------

function checkAvailability() {
  run("availability", [$("check-availability")], t("askingControl"), async () => {
    const result = await call(FARLINK, 3, "check_availability");
    if (result.available === true) return t("available");
    // Not offered is said as a failure: in words, and marked as one.
    const code = result.code === SUCCESS ? 2900 : result.code;
    const row = `${FARLINK}/3/check_availability`;
    const words = describe(code, row);
    throw new ApiError(code, { sentence: t("notAvailable", { sentence: words.sentence }), next: words.next }, row);
  });
}

$("check-availability").addEventListener("click", checkAvailability);

$("get-register-site").addEventListener("click", (event) =>
  run("register-site", [event.target], t("askingGlobal"), async () => {
    const site = await call(`${FARLINK}.RegisterSite`, 1, "get");
    // Named in words; errno is 0 in every answer that gets here, and members
    // the page does not know are shown under their own names.
    const labels = { host: "registerSite", region: "region", ddns_domain: "ddnsDomain", portal_domain: "portalDomain" };
    const entries = Object.entries(site || {}).filter(([key]) => key !== "errno");
    setFacts($("register-site"), entries.map(([key, value]) => [labels[key] ? t(labels[key]) : key, value]));
    return "";
  }),
);

// --- settings ------------------------------------------------------------------

onSubmit("upnp-form", (form) => {
  const enabled = $("upnp-enabled").checked;
  change("upnp", [submitButton(form)], t("saving"), async () => {
    await call(`${FARLINK}.Upnp`, 1, "set", { enabled });
    return t(enabled ? "upnpIsOn" : "upnpIsOff");
  });
});

// The box has no reading of SNI: nothing is preselected, and only a choice
// the administrator made is sent (Enter in the domain field chooses nothing).
onSubmit("sni-form", (form) => {
  const choice = form.querySelector("input[name=sni]:checked");
  const domain = $("sni-domain").value.trim();
  change("sni", [submitButton(form)], t("saving"), async () => {
    if (!choice) throw new ApiError(null, local("sniChoose"));
    const enabled = choice.value === "on";
    if (enabled && !domain) throw new ApiError(null, local("sniNeedsDomain"));
    await call(`${FARLINK}.SNI`, 1, "set", enabled ? { enabled, domain_name: domain } : { enabled });
    return enabled ? t("sniIsOn", { domain }) : t("sniIsOff");
  });
});

// Each row keeps its entry, so that members the page does not show survive.
function serviceRow(entry) {
  const row = document.createElement("tr");
  row.entry = entry;
  const id = document.createElement("input");
  id.value = typeof entry.id === "string" ? entry.id : "";
  id.setAttribute("aria-label", t("serviceId"));
  const name = id.value || t("newService");
  const enabled = document.createElement("input");
  enabled.type = "checkbox";
  enabled.checked = entry.enabled === true;
  enabled.setAttribute("aria-label", t("reachableFor", { name }));
  const remove = document.createElement("button");
  remove.type = "button";
  remove.textContent = t("remove");
  remove.setAttribute("aria-label", t("removeFor", { name }));
  remove.addEventListener("click", () => row.remove());
  for (const control of [id, enabled, remove]) {
    const cell = document.createElement("td");
    cell.append(control);
    row.append(cell);
  }
  return row;
}

function renderServices(services) {
  $("services").replaceChildren(...services.map((entry) => serviceRow(entry || {})));
}

$("service-add").addEventListener("click", () => {
  const row = serviceRow({ id: "", enabled: true });
  $("services").append(row);
  row.querySelector("input").focus();
});

onSubmit("services-form", (form) => {
  const rows = [...$("services").querySelectorAll("tr")];
  const services = rows.map((row) => {
    const [id, enabled] = row.querySelectorAll("input");
    return { ...row.entry, id: id.value.trim(), enabled: enabled.checked };
  });
  change("services", [submitButton(form)], t("savingServices"), async () => {
    if (services.some((service) => service.id === "")) throw new ApiError(null, local("serviceNeedsId"));
    await call(`${FARLINK}.Permission`, 1, "set", { services });
    return t("servicesSaved", { count: services.length });
  });
});

// --- diagnostics -----------------------------------------------------------------

onSubmit("lookup-form", (form) => {
  const hostname = $("lookup-name").value.trim();
  run("lookup", [submitButton(form)], t("lookingUp", { name: hostname }), async () => {
    if (!hostname) throw new ApiError(null, local("hostNameMissing"));
    const found = await call(`${FARLINK}.Hostname`, 1, "get_ip", { hostname });
    $("lookup-ipv4").textContent = show(found.ipv4);
    $("lookup-ipv6").textContent = show(found.ipv6);
    return "";
  });
});

// --- the connection doctor ------------------------------------------------------

function doctorStep(index, label, state, detail) {
  const list = $("doctor-steps");
  let item = list.children[index];
  if (!item) {
    item = document.createElement("li");
    list.append(item);
  }
  item.dataset.kind = state;
  // Each step's state in words; the colour only repeats it.
  item.textContent = `${t(label)}: ${t(`step-${state}`)}. ${detail}`.trim();
}

$("doctor-run").addEventListener("click", (event) => {
  $("doctor-steps").replaceChildren();
  run("doctor", [event.target, $("summary-doctor")], t("doctorRunning"), async () => {
    const verdict = await diagnose(doctorStep);
    readings.doctorClear = verdict.clear === true;
    renderSetup();
    refreshStatus();
    if (verdict.clear) return t("verdict", { sentence: verdict.sentence });
    // A problem is said as a failure: in words, and marked as one.
    throw new ApiError(null, { sentence: t("verdict", { sentence: verdict.sentence }), next: verdict.next });
  });
});

// --- the guided set-up ------------------------------------------------------------

// Each step is done when the box says so, so the guide can be left at any
// step and resumed where the box stands.
function setupSteps() {
  const settings = readings.settings || {};
  return {
    account: Boolean(settings.kivo_account),
    alias: Boolean(settings.server_alias),
    relay: settings.enabled === true,
    doctor: readings.doctorClear,
  };
}

function renderSetup() {
  const done = setupSteps();
  const asked = sessionStorage.getItem(SETUP_ASKED_KEY) === "yes";
  const needed = readings.settings !== null && !done.alias;
  if (!asked && !needed) $("setup").hidden = true;
  if (asked || needed) $("setup").hidden = false;
  let current = null;
  for (const item of $("setup-steps").children) {
    const step = item.dataset.step;
    const state = done[step] ? "done" : current === null ? "current" : "later";
    if (state === "current") current = step;
    item.dataset.kind = state === "done" ? "ok" : state === "current" ? "running" : "";
    item.querySelector(".step-state").textContent = t(`setup-${state}`);
    item.querySelector("button").hidden = state !== "current";
  }
  // The guide ends on the summary once every step is done.
  if (current === null && !$("setup").hidden && asked) {
    sessionStorage.removeItem(SETUP_ASKED_KEY);
    $("setup").hidden = true;
    goTo("summary");
  }
  $("setup-open").hidden = !$("setup").hidden;
}

$("setup-steps").addEventListener("click", (event) => {
  const target = event.target.closest("button[data-go]");
  if (!target) return;
  sessionStorage.setItem(SETUP_ASKED_KEY, "yes");
  const step = target.closest("li").dataset.step;
  if (step === "account" || step === "alias") {
    $("use-given").checked = step === "account";
    $("use-bound").checked = step !== "account";
    showGivenAccount();
    checkAvailability();
    goTo("alias");
    $("alias-name").focus();
  } else if (step === "relay") {
    $("relay-enabled").checked = true;
    goTo("relay");
  } else {
    goTo("doctor");
    $("doctor-run").click();
  }
});

$("setup-open").addEventListener("click", () => {
  sessionStorage.setItem(SETUP_ASKED_KEY, "yes");
  renderSetup();
  $("setup").hidden = false;
  $("setup-open").hidden = true;
  goTo("setup");
});

$("setup-close").addEventListener("click", () => {
  sessionStorage.removeItem(SETUP_ASKED_KEY);
  $("setup").hidden = true;
  $("setup-open").hidden = false;
  goTo("summary");
});

// --- recent changes -------------------------------------------------------------------

function changeItem(record) {
  const words = changeWords(record, currentLanguage());
  const item = document.createElement("li");
  item.dataset.kind = words.failed ? "failed" : "ok";
  const time = document.createElement("time");
  time.textContent = words.time;
  const text = document.createElement("span");
  text.textContent = words.text;
  item.append(time, " ", text, disclosure(words.details));
  return item;
}

function renderChanges() {
  const kind = $("changes-kind").value;
  const shown = readings.records
    .filter((record) => {
      const words = changeWords(record, currentLanguage());
      return !kind || words.kind === kind || (kind === "failed" && words.failed);
    })
    .slice(-CHANGES_SHOWN)
    .reverse();
  $("change-records").replaceChildren(...shown.map(changeItem));
  say("changes", "ok", shown.length === 0 ? t("noChanges") : "");
  const sni = lastSniChange(readings.records, currentLanguage());
  $("sni-last").textContent = sni ? t("sniLast", sni) : t("sniUnknown");
}

$("changes-kind").addEventListener("change", renderChanges);

async function refreshChanges() {
  if (!signedIn) return;
  const asked = ++changesAsked;
  try {
    const records = (await auditRecords()).filter((record) => record && typeof record === "object");
    if (asked !== changesAsked) return; // a later reading is on its way
    readings.records = records;
    renderChanges();
  } catch (error) {
    report("changes", error);
  }
}

// --- start -------------------------------------------------------------------------

// Polling only while the page is seen; coming back reads at once.
setInterval(() => {
  if (!document.hidden) refreshStatus();
}, STATUS_PERIOD_MS);
setInterval(() => {
  if (!document.hidden) refreshChanges();
}, CHANGES_PERIOD_MS);
document.addEventListener("visibilitychange", () => {
  if (document.hidden) return;
  refreshStatus();
  refreshChanges();
});

// A session kept in the cookie goes on (its first reading is the summary's
// settings); otherwise the sign-in form.
async function start() {
  try {
    await loadTexts(chosenLanguage());
  } catch (error) {
    await loadTexts("en").catch(() => null);
  }
  applyTexts();
  languageButton();
  try {
    showAdmin(await call(FARLINK, 2, "get"));
  } catch (error) {
    showSignIn(error instanceof ApiError && !error.signedOut ? sentenceOf(error) : "");
  }
}

start();
