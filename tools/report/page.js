// Draws the pictures of a report from the tables below them. What is in a cell stays text: it comes
// from the store.
"use strict";

(() => {
  const limit = 2 ** 31; // bytes: no file is longer
  const fill = (state) => `url(#fill-${state})`;
  const text = { color: "var(--muted)", fontSize: 12 };
  const line = { lineStyle: { color: "var(--line)" } };

  const sizeText = (bytes) => {
    let unit = 0;
    for (; Math.abs(bytes) >= 1024 && unit < 3; ++unit) bytes /= 1024;
    return `${Number(bytes.toFixed(bytes < 10 && unit > 0 ? 1 : 0))} ${["B", "KiB", "MiB", "GiB"][unit]}`;
  };
  // A step for about four ticks, round in binary units.
  const stepFor = (bytes) => {
    const unit = 1024 ** Math.max(0, Math.floor(Math.log(Math.max(1, bytes / 4)) / Math.log(1024)));
    return unit * [1, 2, 5, 10, 20, 50, 100, 200, 256, 512].find((step) => step >= bytes / 4 / unit || step === 512);
  };
  const percentText = (share) => `${share > 0 && share < 0.1 ? "< 0.1" : Number(share.toFixed(1))} %`;

  const rowsOf = (table) =>
    [...table.tBodies[0].rows].map((row) => [...row.cells].map((cell) => cell.textContent));
  const number = (cell) => Number(cell.replaceAll(",", ""));

  const charts = [];

  // Draws into a section; `height` in pixels.
  const draw = (section, height, label, option) => {
    section.querySelector(".picture").hidden = false;
    const element = section.querySelector(".chart");
    element.style.height = `${height}px`;
    element.setAttribute("role", "img");
    element.setAttribute("aria-label", `${label} The table below says the same.`);
    const chart = echarts.init(element, null, { renderer: "svg" });
    chart.setOption({
      animation: false,
      textStyle: { fontFamily: getComputedStyle(document.body).fontFamily },
      ...option,
      tooltip: {
        backgroundColor: "var(--panel)",
        borderColor: "var(--line)",
        textStyle: { color: "var(--ink)" },
        confine: true,
        ...option.tooltip,
      },
    });
    charts.push(chart);
    return chart;
  };

  // A tooltip's content: an element, so that nothing in it is taken for markup.
  const tip = (...lines) => {
    const element = document.createElement("div");
    element.className = "tip";
    element.textContent = lines.join("\n");
    return element;
  };

  const drawSlots = (section) => {
    const rows = rowsOf(section.querySelector(".slot-table"));
    const current = rows.find((row) => row[1] === "current");
    const stateOf = (row) => {
      const files = [row[3], row[5]];
      if (files.includes("header damaged") || files.includes("header missing")) return "damaged";
      if (row[1] !== "") return row[1] === "current" ? "live" : "unloaded";
      return number(row[4]) + number(row[6]) <= 48 || number(row[2]) < 0 ? "free" : "older"; // headers alone
    };
    const few = rows.length <= 24;
    draw(section, 230, `A ring of ${rows.length} slots.`, {
      tooltip: {
        formatter: ({ dataIndex }) => {
          const [slot, isCurrent, sequence, pack, packBytes, journal, journalBytes] = rows[dataIndex];
          return tip(
            `Slot ${slot}${isCurrent && `, ${isCurrent}`}`, `sequence ${sequence}`,
            `pack ${pack}, ${sizeText(number(packBytes))}`, `journal ${journal}, ${sizeText(number(journalBytes))}`,
          );
        },
      },
      series: {
        type: "pie",
        radius: [66, 104],
        startAngle: 90 + 180 / rows.length,
        padAngle: few ? 2 : 0,
        emphasis: { scale: false },
        label: { show: few, position: "inside", fontSize: 13, fontWeight: 600 },
        itemStyle: { borderColor: "var(--edge)", borderWidth: few ? 1 : 0.3 },
        data: rows.map((row) => ({
          value: 1,
          name: row[0],
          itemStyle: { color: fill(stateOf(row)) },
          emphasis: { itemStyle: { color: fill(stateOf(row)) } },
          label: {
            color: stateOf(row) === "live" ? "var(--panel)" : "var(--ink)",
            textBorderWidth: stateOf(row) === "live" ? 0 : 3,
            textBorderColor: "var(--panel)",
          },
        })),
      },
    });
    const hub = section.querySelector(".chart").appendChild(document.createElement("div"));
    hub.className = "hub";
    for (const [tag, words] of [
      ["span", "current"],
      ["b", current ? `slot ${current[0]}` : "none"],
      ["span", current ? `sequence ${current[2]}` : ""],
    ])
      hub.appendChild(document.createElement(tag)).textContent = words;
  };

  const drawFiles = (section) => {
    const files = rowsOf(section.querySelector(".file-table"));
    const tables = [...section.querySelectorAll(".region-table")];
    const regions = tables.flatMap((table, file) =>
      rowsOf(table).map(([begin, end, , state, live]) => [file, number(begin), number(end), state, number(live)]));
    const largest = Math.max(1, ...files.map((file) => number(file[6])));
    const rowHeight = files.length <= 12 ? 46 : files.length <= 40 ? 30 : 20;

    const part = (x, y, width, height, state) =>
      ({ type: "rect", shape: { x, y, width, height }, style: { fill: fill(state) } });
    const drawRegion = (params, api) => {
      const [file, begin, end, state, live] = regions[params.dataIndex];
      const area = params.coordSys;
      const [left, middle] = api.coord([begin, file]);
      const right = api.coord([end, file])[0];
      const barHeight = rowHeight * 0.56;
      const top = middle - barHeight / 2;
      const damaged = state === "damaged";
      // Damage is seen at any scale.
      const x = Math.max(left, area.x);
      const width = Math.min(Math.max(right, damaged ? left + 3 : right), area.x + area.width) - x;
      if (width <= 0) return null;
      if (state === "mixed") {
        const liveHeight = barHeight * (live / (end - begin));
        return {
          type: "group",
          children: [
            part(x, top, width, barHeight - liveHeight, "dead"),
            part(x, top + barHeight - liveHeight, width, liveHeight, "live"),
          ],
        };
      }
      const children = [part(x, top, width, barHeight, state)];
      if (damaged) {
        const center = x + width / 2;
        children.push({
          type: "polygon",
          shape: { points: [[center - 5, top - 8], [center + 5, top - 8], [center, top - 1]] },
          style: { fill: "var(--damaged)" },
        });
      }
      return { type: "group", children };
    };
    const drawOutline = (params, api) => {
      const [left, middle] = api.coord([0, params.dataIndex]);
      const right = api.coord([number(files[params.dataIndex][6]), params.dataIndex])[0];
      const area = params.coordSys;
      const x = Math.max(left, area.x);
      const width = Math.min(right, area.x + area.width) - x;
      if (width <= 0) return null;
      return {
        type: "rect",
        shape: { x, y: middle - rowHeight * 0.28, width, height: rowHeight * 0.56 },
        style: { fill: "none", stroke: "var(--edge)", lineWidth: 1 },
        silent: true,
      };
    };

    const axis = (toLimit) => (toLimit ? { max: limit * 1.02, interval: limit / 4 } : { max: largest, interval: stepFor(largest) });
    const chart = draw(section, files.length * rowHeight + 90, `${files.length} files and their regions.`, {
      grid: { left: 8, right: 18, top: 22, bottom: 64, containLabel: true },
      tooltip: {
        formatter: ({ seriesIndex, dataIndex }) => {
          if (seriesIndex !== 0) return "";
          const [file, begin, end, state, live] = regions[dataIndex];
          const share = state === "mixed" ? `live and dead, ${percentText((100 * live) / (end - begin))} live` : state;
          return tip(`${files[file][0]}: ${share}`, `${begin.toLocaleString("en")} to ${end.toLocaleString("en")}`,
            sizeText(end - begin));
        },
      },
      xAxis: {
        type: "value", min: 0, ...axis(largest > limit / 8),
        axisLabel: { ...text, formatter: sizeText, hideOverlap: true, showMaxLabel: false },
        axisLine: { show: true, ...line }, splitLine: line,
      },
      yAxis: {
        type: "category", inverse: true, data: files.map((file) => file[0]),
        axisLabel: {
          color: (name, index) => (files[index] && files[index][3] === "current" ? "var(--ink)" : "var(--muted)"),
          fontSize: 12, interval: 0, width: 90, overflow: "truncate",
          formatter: (name, index) => (files[index][3] === "current" ? `▸ ${name}` : name),
        },
        axisLine: { show: false }, axisTick: { show: false },
      },
      dataZoom: {
        type: "slider", bottom: 8, height: 20, filterMode: "none", showDetail: false, brushSelect: false,
        borderColor: "var(--line)", backgroundColor: "var(--page)", fillerColor: "var(--older)",
        handleStyle: { color: "var(--panel)", borderColor: "var(--edge)" },
        moveHandleStyle: { color: "var(--edge)" },
        dataBackground: { lineStyle: { opacity: 0 }, areaStyle: { opacity: 0 } },
        selectedDataBackground: { lineStyle: { opacity: 0 }, areaStyle: { opacity: 0 } },
      },
      series: [
        {
          type: "custom", renderItem: drawRegion, data: regions.map((region) => region.slice(0, 3)),
          encode: { x: [1, 2], y: 0 }, clip: true,
          markLine: {
            symbol: "none", silent: true, data: [{ xAxis: limit }],
            lineStyle: { color: "var(--bad)", type: "dashed", width: 1.5 },
            label: { formatter: "2 GiB", color: "var(--bad)", position: "start" },
          },
        },
        { type: "custom", renderItem: drawOutline, data: files.map((file, index) => [0, index]), silent: true },
      ],
    });

    let toLimit = largest > limit / 8;
    const button = document.createElement("button");
    button.type = "button";
    button.className = "scale";
    const show = () => {
      button.textContent = toLimit ? "Scale to the largest file" : "Scale to 2 GiB";
      chart.setOption({ xAxis: axis(toLimit) });
    };
    button.addEventListener("click", () => {
      toLimit = !toLimit;
      show();
    });
    section.prepend(button);
    show();
  };

  const bars = (name, color, data) =>
    ({ name, type: "bar", data, itemStyle: { color, borderColor: "var(--edge)", borderWidth: data.length > 60 ? 0 : 0.5 }, emphasis: { disabled: true } });
  const categories = (data, more) => ({
    type: "category", data, axisLine: line, axisTick: { show: false },
    axisLabel: { ...text, hideOverlap: true, ...more },
  });
  const values = (formatter) =>
    ({ type: "value", axisLabel: { ...text, formatter }, splitLine: line, splitNumber: 4 });
  const grid = { left: 8, right: 12, top: 14, bottom: 8, containLabel: true };

  const drawSizes = (section) => {
    const rows = rowsOf(section.querySelector(".size-table")).map((row) => row.map(number));
    if (rows.length === 0) return;
    const sum = (column) => rows.reduce((total, row) => total + row[column], 0) || 1;
    const blobs = sum(2);
    const bytes = sum(3);
    draw(section, 260, `A histogram of the sizes of ${blobs} blobs.`, {
      grid,
      tooltip: {
        trigger: "axis", axisPointer: { type: "none" },
        formatter: ([{ dataIndex }]) => {
          const [from, to, count, total] = rows[dataIndex];
          return tip(
            `${from.toLocaleString("en")} to ${to.toLocaleString("en")} bytes`,
            `${count.toLocaleString("en")} blobs, ${percentText((100 * count) / blobs)}`,
            `${sizeText(total)}, ${percentText((100 * total) / bytes)}`,
          );
        },
      },
      xAxis: categories(rows.map((row) => (row[0] === 0 ? "empty" : `from ${sizeText(row[0])}`)), { formatter: (name) => name.replace("from ", "") }),
      yAxis: { ...values("{value} %"), max: ({ max }) => Math.min(100, 10 * Math.ceil(max / 10)) },
      series: [
        bars("blobs", fill("live"), rows.map((row) => (100 * row[2]) / blobs)),
        bars("bytes", fill("older"), rows.map((row) => (100 * row[3]) / bytes)),
      ],
    });
  };

  const drawTransactions = (section) => {
    const rows = rowsOf(section.querySelector(".transaction-table"));
    if (rows.length === 0) return;
    const highest = Math.max(...rows.map((row) => number(row[4])));
    const lowest = Math.max(...rows.map((row) => number(row[6])));
    const unit = stepFor(highest + lowest);
    const chart = draw(section, 280, `Bytes stored and deleted by ${rows.length} groups of transactions.`, {
      grid: { ...grid, right: 36 },
      tooltip: {
        trigger: "axis", axisPointer: { type: "none" },
        formatter: ([{ dataIndex }]) => {
          const [ids, time, count, stores, stored, deletes, deleted] = rows[dataIndex];
          return tip(
            `${count} transaction${count === "1" ? "" : "s"}: ${ids}`, ...(time ? [time] : []),
            `${stores} stored, ${sizeText(number(stored))}`, `${deletes} deleted, ${sizeText(number(deleted))}`,
          );
        },
      },
      xAxis: categories(rows.map((row) => row[0]), { margin: 14 }),
      yAxis: {
        ...values((value) => sizeText(value).replace("-", "−")), interval: unit,
        min: -unit * Math.ceil(lowest / unit), max: unit * Math.ceil(highest / unit) || unit,
      },
      series: [
        { ...bars("stored", fill("live"), rows.map((row) => number(row[4]))), stack: "all" },
        { ...bars("deleted", fill("dead"), rows.map((row) => -number(row[6]))), stack: "all" },
      ],
    });
    // Times, at as many bars as there is room for; below the first, and where it changes, the date.
    const step = () => Math.ceil(rows.length / Math.max(1, Math.floor(chart.getWidth() / 110)));
    const partsOf = ([ids, time]) => (time ? [time.slice(11, 19), time.slice(0, 10)] : [ids.split(" ")[0], ""]);
    const label = (name, index) => {
      const [time, date] = partsOf(rows[index]);
      const [timeBefore, dateBefore] = partsOf(rows[index - step()] ?? ["", ""]);
      return date !== dateBefore ? `${time}\n${date}` : time !== timeBefore ? time : "";
    };
    chart.setOption({ xAxis: { axisLabel: { interval: (index) => index % step() === 0, formatter: label, lineHeight: 16 } } });
  };

  for (const [id, drawer] of [
    ["slots", drawSlots], ["files", drawFiles], ["sizes", drawSizes], ["transactions", drawTransactions],
  ]) {
    const section = document.getElementById(id);
    if (section) drawer(section);
  }

  const fit = (width) => {
    for (const chart of charts)
      if (!chart.getDom().closest("#slots")) chart.resize({ width });
  };
  addEventListener("resize", () => fit("auto"));
  addEventListener("beforeprint", () => fit(680)); // pixels: A4 between its margins
  addEventListener("afterprint", () => fit("auto"));
})();
