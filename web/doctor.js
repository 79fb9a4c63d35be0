// The connection doctor: the module's own probes, in the order in which one
// depends on the other, each reported as it finishes, and one verdict with
// the next step for the person. Every probe is a call, and every call ends
// (the module's own time-outs, then the page's abort in api.js), so the
// doctor always ends. The sentences come from openapi.json (codes.js).
import { ApiError, call, fetchJson } from "./api.js";
import { LOCAL, describe, describeWord, loadCodes, wordsForCode } from "./codes.js";

const FARLINK = "ORVO.Core.Farlink";
const SUCCESS = 2908;
// The build's control server names (docs/ui.md), beside the page.
const DEPLOYMENT = "deployment.json";
const DEPLOYMENT_TIME_LIMIT_MS = 15000;

// Findings that do not stop the doctor, most telling first: whether the
// relay may be offered here outweighs the daemon's state, which outweighs a
// missing alias.
const RANK = { availability: 0, daemon: 1, alias: 2 };

export const ALL_CLEAR = {
  sentence: "The doctor found nothing wrong: the relay can work on this box.",
  next: "",
};
const NO_ALIAS = {
  sentence: "No alias is bound to this box yet, so it cannot be reached by name.",
  next: "Bind one in the Server alias section.",
};
const NO_NAMES = {
  sentence: "The page could not read the control server's names from the box.",
  next: "Reload the page and run the doctor again.",
};

// A step's failure: it stops the doctor, and its words are the verdict.
class Stop extends Error {
  constructor(words, detail) {
    super(words.sentence);
    this.words = words;
    this.detail = detail || `${words.sentence} ${words.next}`.trim();
  }
}

function stopFor(error) {
  if (error instanceof Stop) return error;
  if (error instanceof ApiError) return new Stop(error);
  console.error(error);
  return new Stop(LOCAL.broken);
}

async function lookUp(hostname) {
  const found = await call(`${FARLINK}.Hostname`, 1, "get_ip", { hostname });
  const addresses = [found.ipv4, found.ipv6].filter(Boolean).join(" and ");
  return { detail: `${hostname} is at ${addresses}.` };
}

// Each step answers {detail, finding?} or throws; `facts` carries what a
// later step needs from an earlier one.
function steps(facts) {
  return [
    {
      label: "Relay daemon and the control server's name",
      async probe() {
        try {
          const data = await call(FARLINK, 1, "status");
          const word = describeWord(data.status);
          return { detail: word.sentence, finding: word.fine ? null : ["daemon", word] };
        } catch (error) {
          const words = error instanceof ApiError ? wordsForCode(error.code) : [];
          if (words.length === 0) throw error;
          throw new Stop(describe(error.code), words.map((word) => `${word.sentence} ${word.next}`).join(" Or: "));
        }
      },
    },
    {
      label: "Looking up the global control server",
      async probe() {
        const names = await fetchJson(DEPLOYMENT, DEPLOYMENT_TIME_LIMIT_MS).catch(() => null);
        if (!names || typeof names.primary_control_host !== "string") throw new Stop(NO_NAMES);
        return lookUp(names.primary_control_host);
      },
    },
    {
      label: "Asking for the register site",
      async probe() {
        const site = await call(`${FARLINK}.RegisterSite`, 1, "get");
        facts.site = site && typeof site.host === "string" ? site.host : "";
        return { detail: `The register site is ${facts.site || "not named"} (region ${site.region || "not given"}).` };
      },
    },
    {
      label: "Looking up the register site",
      probe: () => lookUp(facts.site),
    },
    {
      label: "Whether the relay may be offered here",
      async probe() {
        const result = await call(FARLINK, 3, "check_availability");
        if (result.available === true) return { detail: "The relay may be offered on this box." };
        const words = describe(result.code === SUCCESS ? 2900 : result.code);
        // Only a refusal for the region is a finding; anything else is a failure.
        if (result.code !== 2911) throw new Stop(words);
        return { detail: words.sentence, finding: ["availability", words] };
      },
    },
    {
      label: "Alias, server ID and account",
      async probe() {
        const data = await call(FARLINK, 2, "get");
        const shown = (value) => (value ? String(value) : "none");
        const detail =
          `Alias ${shown(data.server_alias)}, server ID ${shown(data.server_id)}, ` +
          `account ${shown(data.kivo_account)}.`;
        return { detail, finding: data.server_alias ? null : ["alias", NO_ALIAS] };
      },
    },
  ];
}

// Runs the steps in order; `report(index, label, state, detail)` hears each
// one start ("running") and end ("ok", "finding", "failed", "skipped").
// Answers the verdict's {sentence, next}.
export async function diagnose(report) {
  await loadCodes(fetchJson);
  const all = steps({});
  const findings = [];
  for (const [index, step] of all.entries()) {
    report(index, step.label, "running", "checking…");
    try {
      const { detail, finding } = await step.probe();
      report(index, step.label, finding ? "finding" : "ok", detail);
      if (finding) findings.push(finding);
    } catch (error) {
      // A session that ended is the page's to handle: the sign-in form.
      if (error instanceof ApiError && error.signedOut) throw error;
      const stop = stopFor(error);
      report(index, step.label, "failed", stop.detail);
      all.slice(index + 1).forEach((later, offset) =>
        report(index + 1 + offset, later.label, "skipped", "It depends on the step that failed."),
      );
      return stop.words;
    }
  }
  findings.sort((a, b) => RANK[a[0]] - RANK[b[0]]);
  return findings.length > 0 ? findings[0][1] : ALL_CLEAR;
}
