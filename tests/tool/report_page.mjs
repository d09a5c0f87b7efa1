// A report in a browser: at two widths and in two schemes it is drawn whole, within the width,
// without a message on the console and without a request.
// report_page.mjs MODULES PAGE FAULTS: where playwright-core is, and how many marks of damage the
// page has to have.
import assert from "node:assert/strict";
import { createRequire } from "node:module";

const [modules, page, faults] = process.argv.slice(2);
const { chromium } = createRequire(`${modules}/`)("playwright-core");
const browser = await chromium.launch({
  executablePath: "/usr/bin/chromium",
  args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
    "--disable-component-update", "--disable-sync"],
});

for (const width of [360, 1280])
  for (const colorScheme of ["light", "dark"]) {
    const tab = await browser.newPage({ viewport: { width, height: 900 }, colorScheme });
    const complaints = [];
    tab.on("console", (message) => complaints.push(message.text()));
    tab.on("pageerror", (error) => complaints.push(error.stack));
    tab.on("request", (request) => request.url().startsWith("file:") || complaints.push(request.url()));
    await tab.goto(`file://${page}`);

    const seen = await tab.evaluate(() => ({
      width: document.documentElement.scrollWidth,
      bold: document.querySelectorAll("main h1 b, main td b, main li b").length,
      drawn: [...document.querySelectorAll("section:not([hidden]) .chart")].map((chart) => ({
        id: chart.closest("section").id,
        shapes: chart.querySelectorAll("svg path").length,
        rows: chart.closest("section").querySelectorAll("tbody tr").length,
      })),
      marks: document.querySelectorAll('#files .chart path[fill="var(--damaged)"]').length,
      live: getComputedStyle(document.querySelector("pattern .live")).fill,
    }));
    assert.ok(seen.width <= width, `${seen.width} pixels wide at ${width}`);
    assert.equal(seen.bold, 0, "a name from the store became markup");
    assert.equal(seen.drawn.length, 4);
    for (const { id, shapes, rows } of seen.drawn) assert.ok(shapes >= Math.min(rows, 4), `${id}: ${shapes} shapes`);
    assert.equal(seen.marks, Number(faults));

    // The scheme may change while the page is open.
    await tab.emulateMedia({ colorScheme: colorScheme === "light" ? "dark" : "light" });
    const changed = await tab.evaluate(() => getComputedStyle(document.querySelector("pattern .live")).fill);
    assert.notEqual(changed, seen.live);
    assert.deepEqual(complaints, []);
    await tab.close();
  }
await browser.close();
