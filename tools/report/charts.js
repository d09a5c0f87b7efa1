// The parts of the chart library that page.js uses.
export { init } from "echarts/core";
import { use } from "echarts/core";
import { BarChart, CustomChart, PieChart } from "echarts/charts";
import { DataZoomComponent, GridComponent, MarkLineComponent, TooltipComponent } from "echarts/components";
import { SVGRenderer } from "echarts/renderers";

use([
  BarChart, CustomChart, PieChart, DataZoomComponent, GridComponent, MarkLineComponent, TooltipComponent, SVGRenderer,
]);
