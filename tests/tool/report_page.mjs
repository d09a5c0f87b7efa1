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
  const style = (selector) => getComputedStyle(document.querySelector(selector));
  const luminance = (color) =>
    color.match(/[\d.]+/g).map((part) => (part / 255 > 0.04 ? ((part / 255 + 0.055) / 1.055) ** 2.4 : part / 3294))
      .reduce((sum, part, k) => sum + part * [0.2126, 0.7152, 0.0722][k], 0.05);
  const contrast = (element) => {
    let behind = element;
    while (/, 0\)$/.test(getComputedStyle(behind).backgroundColor)) behind = behind.parentElement;
    const own = getComputedStyle(element)[element.namespaceURI.endsWith("svg") ? "fill" : "color"];
    const [dark, light] = [own, getComputedStyle(behind).backgroundColor].map(luminance).sort((a, b) => a - b);
    return light / dark;
  };
  const table = document.querySelector("#slots .scroll");
  table.scrollLeft = 9;
  return {
    width: document.documentElement.scrollWidth,
    scrolls: table.scrollLeft > 0,
    heading: all("h1")[0].textContent.split(":")[0],
    findings: all("#findings li.damage").length,
    bold: all("main h1 b, main td b, main li b").length,
    pale: all("main *, main text").filter((each) => /\S/.test(each.firstChild?.data ?? "") && !each.closest("#slots svg") && contrast(each) < 4.5)
      .map((each) => each.textContent),
    drawn: all("section .chart").map((chart) => [
      chart.closest("section").id, chart.querySelectorAll("svg path").length >= Math.min(4, chart.closest("section").querySelectorAll("tbody tr").length),
    ]),
    marks: all('#files .chart path[fill="var(--damaged)"]').length,
    times: all("#transactions text").map((each) => each.textContent).filter((text) => /..[:-]../.test(text)),
    live: style("pattern .live").fill,
    border: style("header").borderLeftColor,
  };
};

const borders = {};
for (let at = 0; at < pages.length; at += 4)
  for (const width of [360, 1280])
    for (const colorScheme of ["light", "dark"]) {
      const [page, verdict, marks, days] = pages.slice(at, at + 4);
      const tab = await browser.newPage({ viewport: { width, height: 900 }, colorScheme });
      const complaints = [];
      tab.on("console", (message) => complaints.push(message.text()));
      tab.on("pageerror", (error) => complaints.push(error.stack));
      tab.on("request", (request) => request.url().startsWith("file:") || complaints.push(request.url()));
      await tab.goto(`file://${page}`);

      const { live, border, findings, times, ...seen } = await tab.evaluate(look);
      const wanted = { width, scrolls: width < 400, heading: verdict, bold: 0, pale: [], marks: Number(marks),
        drawn: ["slots", "files", "sizes", "transactions"].map((id) => [id, true]) };
      assert.deepEqual(seen, wanted, `${page}, ${width} pixels, ${colorScheme}`);
      assert.equal(findings > 0, verdict === "Damaged");
      const dates = times.filter((text) => text.includes("-"));
      assert.deepEqual([Math.min(dates.length, 2), new Set(dates).size], [Number(days), dates.length], `${times}`);
      assert.notEqual(borders[verdict === "Sound" ? "Damaged" : "Sound"], border);
      borders[verdict] = border;

      // The scheme may change while the page is open.
      await tab.emulateMedia({ colorScheme: colorScheme === "light" ? "dark" : "light" });
      assert.notEqual((await tab.evaluate(look)).live, live);
      assert.deepEqual(complaints, []);
      await tab.close();
    }
await browser.close();
