// Reports in a browser: at two widths and in two schemes each is drawn whole and legibly, within the
// width, without a message on the console and without a request.
// report_page.mjs MODULES {PAGE VERDICT MARKS DAYS}...: where playwright-core is; how the page begins,
// how many marks of damage it has, and 2 if its transactions are of more than one day, else 1.
import assert from "node:assert/strict";
import { createRequire } from "node:module";

const [modules, ...pages] = process.argv.slice(2);
const { chromium } = createRequire(`${modules}/`)("playwright-core");
const browser = await chromium.launch({
  executablePath: "/usr/bin/chromium",
  args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
    "--disable-component-update", "--disable-sync"],
});

const look = () => {
  const all = (selector) => [...document.querySelectorAll(selector)].filter((each) => each.getClientRects().length > 0);
  const luminance = (color) =>
    color.match(/[\d.]+/g).map((part) => (part > 10 ? ((part / 255 + 0.055) / 1.055) ** 2.4 : part / 3294))
      .reduce((sum, part, k) => sum + part * [0.2126, 0.7152, 0.0722][k], 0.05);
  const isPale = (element) => {
    let behind = element;
    while (/, 0\)$/.test(getComputedStyle(behind).backgroundColor)) behind = behind.parentElement;
    const own = getComputedStyle(element)[element.namespaceURI.endsWith("svg") ? "fill" : "color"];
    const [dark, light] = [own, getComputedStyle(behind).backgroundColor].map(luminance).sort((a, b) => a - b);
    return light / dark < 4.5;  // WCAG 2
  };
  const table = document.querySelector("#slots .scroll");
  table.scrollLeft = 9;
  return {
    width: document.documentElement.scrollWidth,
    scrolls: table.scrollLeft > 0,
    heading: all("h1")[0].textContent.split(":")[0],
    hasFindings: all("#findings li.damage").length > 0,
    pale: all("main *").filter((each) => /\S/.test(each.firstChild?.data ?? "") && !each.closest("#slots svg") && isPale(each)).map((each) => each.textContent),
    drawn: all("section .chart").map((chart) => chart.querySelectorAll("svg path").length >= Math.min(4, chart.closest("section").querySelectorAll("tbody tr").length)),
    marks: all('#files .chart path[fill="var(--damaged)"]').length,
    dates: all("#transactions text").map((each) => each.textContent).filter((text) => /....-..-../.test(text)),
    border: getComputedStyle(document.querySelector("header")).borderLeftColor,
  };
};

const borders = {};
for (let at = 0; at < pages.length; at += 4)
  for (const width of [360, 1280]) {
    const [page, verdict, marks, days] = pages.slice(at, at + 4);
    const tab = await browser.newPage({ viewport: { width, height: 900 }, colorScheme: "light" });
    const complaints = [];
    tab.on("console", (message) => complaints.push(message.text()));
    tab.on("pageerror", (error) => complaints.push(error.stack));
    tab.on("request", (request) => request.url().startsWith("file:") || complaints.push(request.url()));
    await tab.goto(`file://${page}`);
    for (const colorScheme of ["light", "dark"]) {  // it may change while the page is open
      await tab.emulateMedia({ colorScheme });
      const { border, dates, ...seen } = await tab.evaluate(look);
      const wanted = { width, scrolls: width < 400, heading: verdict, hasFindings: verdict === "Damaged", pale: [], drawn: Array(4).fill(true), marks: Number(marks) };
      assert.deepEqual(seen, wanted, `${page}, ${width} pixels, ${colorScheme}`);
      assert.deepEqual([Math.min(dates.length, 2), new Set(dates).size], [Number(days), dates.length], `${dates}`);
      borders[`${verdict} ${colorScheme}`] = border;
    }
    assert.deepEqual(complaints, []);
    await tab.close();
  }
assert.equal(new Set(Object.values(borders)).size, 4, "colours of sound and damaged, light and dark");
await browser.close();
