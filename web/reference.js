// The human-readable API reference, drawn from openapi.json: the one place
// that names the rows, their parameters, results and codes.
import { fetchFile } from "./api.js";

const $ = (id) => document.getElementById(id);

function element(tag, text, attributes = {}) {
  const node = document.createElement(tag);
  if (text !== undefined) node.textContent = text;
  for (const [name, value] of Object.entries(attributes)) node.setAttribute(name, value);
  return node;
}

function resolve(document, schema) {
  if (!schema || !schema.$ref) return schema || {};
  return schema.$ref
    .slice(2)
    .split("/")
    .reduce((node, key) => node[key], document);
}

function typeOf(document, schema) {
  const resolved = resolve(document, schema);
  if (resolved.type === "array") return `array of ${typeOf(document, resolved.items)}`;
  if (resolved.type === "object" && resolved.properties) {
    const members = Object.keys(resolved.properties).join(", ");
    return `object (${members})`;
  }
  return resolved.type || "any";
}

// name | type | required | description, one table row per member.
function memberTable(document, caption, schema, skip = []) {
  const resolved = resolve(document, schema);
  const properties = Object.entries(resolved.properties || {}).filter(([name]) => !skip.includes(name));
  if (properties.length === 0) return element("p", `${caption}: none.`);
  const table = element("table");
  table.append(element("caption", caption));
  const head = element("tr");
  for (const title of ["Name", "Type", "Required", "Meaning"]) head.append(element("th", title, { scope: "col" }));
  const top = element("thead");
  top.append(head);
  table.append(top);
  const body = element("tbody");
  for (const [name, member] of properties) {
    const row = element("tr");
    const described = resolve(document, member);
    const rule = [described.description, described.pattern && `pattern ${described.pattern}`,
      described.minLength !== undefined && `${described.minLength} to ${described.maxLength} characters`,
      described.default !== undefined && `default ${JSON.stringify(described.default)}`]
      .filter(Boolean)
      .join("; ");
    row.append(element("td", name), element("td", typeOf(document, member)),
      element("td", (resolved.required || []).includes(name) ? "yes" : "no"), element("td", rule));
    body.append(row);
  }
  table.append(body);
  return table;
}

function rowEntry(document, variant, codes) {
  const { api, version, method } = variant.properties;
  const entry = element("article", undefined, { class: "row", "data-row": `${api.const}/${version.const}/${method.const}` });
  entry.append(element("h3", `${api.const} version ${version.const}: ${method.const}`));
  entry.append(element("p", variant.description));
  entry.append(memberTable(document, "Parameters", variant, ["api", "version", "method"]));
  const result = resolve(document, variant["x-result"]);
  if (result.type === "null") entry.append(element("p", "Result: none; the answer is {\"success\":true}."));
  else entry.append(memberTable(document, `Result (${typeOf(document, result)})`, result));
  const list = variant["x-error-codes"].map((code) => `${code} ${codes.get(code).meaning}`).join("; ");
  entry.append(element("p", `Error codes: ${list}.`));
  if (variant["x-notes"]) entry.append(element("p", variant["x-notes"]));
  return entry;
}

function render(document) {
  const codes = new Map(document["x-error-codes"].map((entry) => [entry.code, entry]));
  $("about").textContent = document.info.description;
  for (const [path, item] of Object.entries(document.paths)) {
    const verbs = Object.keys(item);
    const operation = item[verbs[0]];
    $("endpoints").append(element("h3", `${verbs.join(", ").toUpperCase()} ${path}`), element("p", operation.summary),
      element("p", operation.description));
  }
  const variants = document.components.schemas.EntryCall.oneOf;
  $("rows").append(...variants.map((variant) => rowEntry(document, variant, codes)));
  for (const entry of document["x-error-codes"]) {
    const row = element("tr", undefined, { id: `code-${entry.code}` });
    row.append(element("td", String(entry.code)), element("td", entry.from), element("td", entry.meaning),
      element("td", `${entry.sentence} ${entry.next}`.trim()));
    $("codes").append(row);
  }
  for (const entry of document["x-daemon-words"]) {
    const row = element("tr", undefined, { id: `word-${entry.word}` });
    let answer = `code ${entry.code}`;
    if (entry.kind === "status") answer = "reported as it is";
    else if (entry.code === 2908) answer = "state stays connecting";
    row.append(element("td", entry.word), element("td", entry.kind), element("td", answer),
      element("td", `${entry.sentence} ${entry.next}`.trim()));
    $("daemon-words").append(row);
  }
}

fetchFile("openapi.json", 15000)
  .then(render)
  .catch(() => {
    $("reference-message").textContent = "The reference could not be loaded from the box. Reload the page.";
    $("reference-message").hidden = false;
  });
