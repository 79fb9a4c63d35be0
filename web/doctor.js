// The connection doctor: the module's own probes, in the order in which one
// depends on the other, each reported as it finishes, and one verdict with
// the next step for the person. Every probe is a call, and every call ends
// (the module's own time-outs, then the page's abort in api.js), so the
// doctor always ends.
import { ApiError, call, fetchFile } from "./api.js";
import { describe, describeWord, local, t } from "./text.js";

const FARLINK = "ORVO.Core.Farlink";
const SUCCESS = 2908;
const NETWORK = 2902;
const REGION = 2911;
// The build's control server names (docs/ui.md), beside the page.
const DEPLOYMENT = "deployment.json";
const DEPLOYMENT_TIME_LIMIT_MS = 15000;

// Findings that do not stop the doctor, most telling first: whether the
// relay may be offered here outweighs a blocked connection, which outweighs
// the daemon's state, which outweighs a missing alias.
const RANK = { availability: 0, blocked: 1, daemon: 2, alias: 3 };

// A step's failure: it stops the doctor, and its words are the verdict.
class Stop extends Error {
  constructor(words) {
    super(words.sentence);
    this.words = words;
  }
}

function stopFor(error) {
  if (error instanceof Stop) return error;
  if (error instanceof ApiError) return new Stop(error);
  console.error(error);
  return new Stop(local("broken"));
}

// A name that does not resolve is the box's DNS, whatever the call said.
async function lookUp(hostname) {
  try {
    const found = await call(`${FARLINK}.Hostname`, 1, "get_ip", { hostname });
    const addresses = [found.ipv4, found.ipv6].filter(Boolean).join(", ");
    return { detail: t("doctorResolves", { name: hostname, addresses }) };
  } catch (error) {
    if (error instanceof ApiError && error.code === NETWORK) throw new Stop(local("dnsTrouble", { name: hostname }));
    throw error;
  }
}

// Each step answers {detail, finding?} or throws; `facts` carries what a
// later step needs from an earlier one.
function steps(facts) {
  return [
    {
      label: "doctorStepStatus",
      async probe() {
        try {
          const data = await call(FARLINK, 1, "status");
          const word = describeWord(data.status);
          return { detail: word.sentence, finding: word.fine ? null : ["daemon", word] };
        } catch (error) {
          // The daemon's network failure: the lookups that follow tell a
          // name that does not resolve from a connection that is blocked.
          if (!(error instanceof ApiError) || error.code !== NETWORK) throw error;
          return { detail: error.sentence, finding: ["blocked", local("blocked")] };
        }
      },
    },
    {
      label: "doctorStepGlobal",
      async probe() {
        const names = await fetchFile(DEPLOYMENT, DEPLOYMENT_TIME_LIMIT_MS).catch(() => null);
        if (!names || typeof names.primary_control_host !== "string") throw new Stop(local("noNames"));
        return lookUp(names.primary_control_host);
      },
    },
    {
      label: "doctorStepSite",
      async probe() {
        const site = await call(`${FARLINK}.RegisterSite`, 1, "get");
        facts.site = site && typeof site.host === "string" ? site.host : "";
        return { detail: t("doctorSite", { host: facts.site || "-", region: (site && site.region) || "-" }) };
      },
    },
    {
      label: "doctorStepSiteLookup",
      probe: () => lookUp(facts.site),
    },
    {
      label: "doctorStepAvailability",
      async probe() {
        const result = await call(FARLINK, 3, "check_availability");
        if (result.available === true) return { detail: t("doctorAvailable") };
        const code = result.code === SUCCESS ? 2900 : result.code;
        const words = describe(code, `${FARLINK}/3/check_availability`);
        // Only a refusal for the region is a finding; anything else is a failure.
        if (code !== REGION) throw new Stop(words);
        return { detail: words.sentence, finding: ["availability", words] };
      },
    },
    {
      label: "doctorStepAlias",
      async probe() {
        const data = await call(FARLINK, 2, "get");
        const shown = (value) => (value ? String(value) : t("none"));
        const detail = t("doctorAlias", {
          alias: shown(data.server_alias),
          id: shown(data.server_id),
          account: shown(data.kivo_account),
        });
        return { detail, finding: data.server_alias ? null : ["alias", local("noAlias")] };
      },
    },
  ];
}

// Runs the steps in order; `report(index, label, state, detail)` hears each
// one start ("running") and end ("ok", "finding", "failed", "skipped").
// Answers the verdict's {sentence, next, clear}.
export async function diagnose(report) {
  const all = steps({});
  const findings = [];
  for (const [index, step] of all.entries()) {
    report(index, step.label, "running", "");
    try {
      const { detail, finding } = await step.probe();
      report(index, step.label, finding ? "finding" : "ok", detail);
      if (finding) findings.push(finding);
    } catch (error) {
      // A session that ended is the page's to handle: the sign-in form.
      if (error instanceof ApiError && error.signedOut) throw error;
      const stop = stopFor(error);
      report(index, step.label, "failed", `${stop.words.sentence} ${stop.words.next}`.trim());
      all.slice(index + 1).forEach((later, offset) =>
        report(index + 1 + offset, later.label, "skipped", t("stepDepends")),
      );
      return stop.words;
    }
  }
  findings.sort((a, b) => RANK[a[0]] - RANK[b[0]]);
  return findings.length > 0 ? findings[0][1] : { ...local("allClear"), clear: true };
}
