// The admin page: every section's reading and changing of the relay. Text
// that comes from the box is only ever set as text (textContent, value).
import { ApiError, auditRecords, call, fetchJson, signIn, signOut } from "./api.js";
import { LOCAL, describe, describeWord, loadCodes } from "./codes.js";
import { ALL_CLEAR, diagnose } from "./doctor.js";

const FARLINK = "ORVO.Core.Farlink";
const STATUS_PERIOD_MS = 15000;
const CHANGES_SHOWN = 10;
const SUCCESS = 2908;
const ALIAS_TAKEN = 2904;
const ALIAS_PATTERN = /^[A-Za-z][A-Za-z0-9-]*$/;

const $ = (id) => document.getElementById(id);
const outcomeOf = (name) => document.querySelector(`[data-for="${name}"]`);
let signedIn = false;
let statusRunning = false;
let changesAsked = 0;

function say(name, kind, text) {
  const element = outcomeOf(name);
  element.dataset.kind = kind;
  element.textContent = text;
}

function wordsOf(error) {
  if (error instanceof ApiError) return error;
  console.error(error);
  return LOCAL.broken;
}

// Every failure ends here: its sentence and way forward in the section, and
// the sign-in form when the session is gone.
function report(name, error) {
  const { sentence, next } = wordsOf(error);
  say(name, "error", next ? `${sentence} ${next}` : sentence);
  if (error instanceof ApiError && error.signedOut) showSignIn(`${sentence} ${next}`);
}

// Runs one action with its controls disabled, so that it cannot be sent
// twice, and its outcome in words.
async function run(name, controls, busyText, work) {
  if (controls.some((control) => control.disabled)) return;
  controls.forEach((control) => (control.disabled = true));
  say(name, "busy", busyText);
  try {
    say(name, "ok", await work());
  } catch (error) {
    report(name, error);
  } finally {
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
  return text === undefined || text === null || text === "" ? "none" : String(text);
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

function showAdmin() {
  signedIn = true;
  $("sign-in").hidden = true;
  $("page-message").hidden = true;
  $("admin").hidden = false;
  $("sign-out").hidden = false;
  $("relay-title").focus(); // keyboard users start at the first section
  refreshAll();
}

onSubmit("sign-in-form", (form) =>
  run("sign-in", [submitButton(form)], "Signing in…", async () => {
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
  say(
    "sign-in",
    confirmed ? "ok" : "error",
    confirmed
      ? "You have signed out."
      : "You have signed out of this page, but the box did not confirm the end of the session. Close the browser to be sure.",
  );
});

// --- reading ---------------------------------------------------------------

async function refreshStatus() {
  if (statusRunning || !signedIn) return;
  statusRunning = true;
  try {
    const data = await call(FARLINK, 1, "status");
    await loadCodes(fetchJson);
    $("daemon-status").textContent = daemonWords(data.status);
    $("alias-status").textContent = show(data.alias_status);
    say("status", "ok", "");
  } catch (error) {
    $("daemon-status").textContent = "unknown";
    $("alias-status").textContent = "unknown";
    report("status", error);
  } finally {
    $("status-time").textContent = new Date().toLocaleTimeString();
    statusRunning = false;
  }
}

function daemonWords(status) {
  const { meaning } = describeWord(status);
  return meaning && meaning !== status ? `${meaning} (${status})` : show(status);
}

async function refreshSettings() {
  try {
    const [current, first] = await Promise.all([call(FARLINK, 2, "get"), call(FARLINK, 1, "get")]);
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
}

async function refresh(name, read) {
  try {
    await read();
    say(name, "ok", "");
  } catch (error) {
    report(name, error);
  }
}

function refreshAll() {
  refreshStatus();
  refreshSettings();
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

onSubmit("relay-form", (form) => {
  const enabled = $("relay-enabled").checked;
  const busy = enabled ? "Switching the relay on…" : "Switching the relay off…";
  change("relay", [submitButton(form)], busy, async () => {
    await call(FARLINK, 2, "set", { enabled });
    refreshStatus();
    refreshSettings();
    return enabled ? "The relay is switched on." : "The relay is switched off.";
  });
});

$("status-refresh").addEventListener("click", refreshStatus);

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
  change("alias", controls, "Binding the alias; the control server can take up to a minute…", async () => {
    if (!ALIAS_PATTERN.test(alias)) {
      throw new ApiError(null, {
        sentence: "An alias begins with a letter and holds only letters, digits and hyphens.",
        next: "Correct it and try again.",
      });
    }
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
    return `The alias ${alias} is bound to this box.`;
  });
}

onSubmit("alias-form", () => bindAlias(false));
$("alias-force").addEventListener("click", () => bindAlias(true));
$("alias-name").addEventListener("input", () => ($("alias-force").hidden = true));
for (const id of ["use-bound", "use-given"]) {
  $(id).addEventListener("change", () => ($("given-account").hidden = !$("use-given").checked));
}

// --- availability and register site ------------------------------------------

$("check-availability").addEventListener("click", (event) =>
  run("availability", [event.target], "Asking the control server…", async () => {
    const result = await call(FARLINK, 3, "check_availability");
    if (result.available === true) return "The relay can be offered on this box.";
    await loadCodes(fetchJson);
    const { sentence, next } = describe(result.code === SUCCESS ? 2900 : result.code);
    return `The relay cannot be offered: ${sentence} ${next}`;
  }),
);

$("get-register-site").addEventListener("click", (event) =>
  run("register-site", [event.target], "Asking the global control server…", async () => {
    const site = await call(`${FARLINK}.RegisterSite`, 1, "get");
    setFacts($("register-site"), Object.entries(site || {}));
    return "";
  }),
);

// --- settings ------------------------------------------------------------------

onSubmit("tunnel-form", (form) => {
  const relay_enabled = $("tunnel-enabled").checked;
  change("tunnel", [submitButton(form)], "Saving…", async () => {
    await call(FARLINK, 3, "set_misc_config", { relay_enabled });
    return relay_enabled ? "The relay tunnel is on." : "The relay tunnel is off.";
  });
});

onSubmit("upnp-form", (form) => {
  const enabled = $("upnp-enabled").checked;
  change("upnp", [submitButton(form)], "Saving…", async () => {
    await call(`${FARLINK}.Upnp`, 1, "set", { enabled });
    return enabled ? "UPnP is on." : "UPnP is off.";
  });
});

onSubmit("sni-form", (form) => {
  const enabled = $("sni-enabled").checked;
  const domain = $("sni-domain").value.trim();
  change("sni", [submitButton(form)], "Saving…", async () => {
    if (enabled && !domain) {
      throw new ApiError(null, { sentence: "SNI needs a domain.", next: "Enter the domain, then save." });
    }
    await call(`${FARLINK}.SNI`, 1, "set", enabled ? { enabled, domain_name: domain } : { enabled });
    return enabled ? `Relay SNI is on for ${domain}.` : "Relay SNI is off.";
  });
});

// Each row keeps its entry, so that members the page does not show survive.
function serviceRow(entry) {
  const row = document.createElement("tr");
  row.entry = entry;
  const id = document.createElement("input");
  id.value = typeof entry.id === "string" ? entry.id : "";
  id.setAttribute("aria-label", "Service ID");
  const enabled = document.createElement("input");
  enabled.type = "checkbox";
  enabled.checked = entry.enabled === true;
  enabled.setAttribute("aria-label", `Reachable: ${id.value || "new service"}`);
  const remove = document.createElement("button");
  remove.type = "button";
  remove.textContent = "Remove";
  remove.setAttribute("aria-label", `Remove ${id.value || "new service"}`);
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
  change("services", [submitButton(form)], "Saving the services…", async () => {
    if (services.some((service) => service.id === "")) {
      throw new ApiError(null, { sentence: "Every service needs an ID.", next: "Fill it in or remove the row." });
    }
    await call(`${FARLINK}.Permission`, 1, "set", { services });
    return `Saved ${services.length} services.`;
  });
});

// --- diagnostics -----------------------------------------------------------------

onSubmit("lookup-form", (form) => {
  const hostname = $("lookup-name").value.trim();
  run("lookup", [submitButton(form)], `Looking up ${hostname}…`, async () => {
    if (!hostname) throw new ApiError(null, { sentence: "Enter a host name.", next: "Then look it up." });
    const found = await call(`${FARLINK}.Hostname`, 1, "get_ip", { hostname });
    $("lookup-ipv4").textContent = show(found.ipv4);
    $("lookup-ipv6").textContent = show(found.ipv6);
    return "";
  });
});

// --- the connection doctor ------------------------------------------------------

// Each step's state in words; the colour only repeats it.
const STEP_WORDS = { running: "checking", ok: "fine", finding: "problem", failed: "failed", skipped: "skipped" };

function doctorStep(index, label, state, detail) {
  const list = $("doctor-steps");
  let item = list.children[index];
  if (!item) {
    item = document.createElement("li");
    list.append(item);
  }
  item.dataset.kind = state;
  item.textContent = `${label}: ${STEP_WORDS[state]}. ${state === "running" ? "" : detail}`.trim();
}

$("doctor-run").addEventListener("click", (event) => {
  $("doctor-steps").replaceChildren();
  run("doctor", [event.target], "The doctor is running its checks…", async () => {
    const verdict = await diagnose(doctorStep);
    if (verdict === ALL_CLEAR) return `Verdict: ${verdict.sentence}`;
    // A problem is said as a failure: in words, and marked as one.
    throw new ApiError(null, { sentence: `Verdict: ${verdict.sentence}`, next: verdict.next });
  });
});

// --- recent changes -------------------------------------------------------------------

function recordCells(record) {
  const time = typeof record.time === "string" ? record.time.replace("T", " ").replace(/\.\d+Z$/, " UTC") : "";
  const what =
    record.event === "login" ? "sign-in" : `${show(record.api)} v${show(record.version)} ${show(record.method)}`;
  const params = record.params === undefined ? "" : JSON.stringify(record.params);
  return [time, show(record.client), what, show(record.result), params];
}

async function refreshChanges() {
  if (!signedIn) return;
  const asked = ++changesAsked;
  try {
    const records = (await auditRecords()).slice(-CHANGES_SHOWN).reverse();
    if (asked !== changesAsked) return; // a later reading is on its way
    const rows = records.map((record) => {
      const row = document.createElement("tr");
      for (const text of recordCells(record || {})) {
        const cell = document.createElement("td");
        cell.textContent = text;
        row.append(cell);
      }
      return row;
    });
    $("change-records").replaceChildren(...rows);
    say("changes", "ok", rows.length === 0 ? "The box has recorded no change yet." : "");
  } catch (error) {
    report("changes", error);
  }
}

// --- start -------------------------------------------------------------------------

setInterval(() => {
  if (!document.hidden) refreshStatus();
}, STATUS_PERIOD_MS);

// A session kept in the cookie goes on; otherwise the sign-in form.
async function start() {
  loadCodes(fetchJson);
  try {
    await call(`${FARLINK}.Upnp`, 1, "get");
    showAdmin();
  } catch (error) {
    showSignIn(error instanceof ApiError && !error.signedOut ? `${error.sentence} ${error.next}` : "");
  }
}

start();
