// The statistics panel: counts by type, the top sources and events over time. Dragging
// across the histogram sets the filter's date range.
import uPlot from 'uplot';
import { api, Stats } from './api';
import { view } from './state';

export class StatsPanel {
  private chart: uPlot | null = null;
  onRange: (from: string, to: string) => void = () => {};

  constructor(private root: HTMLElement) {}

  async refresh(): Promise<void> {
    if (this.root.hidden) return;
    try {
      this.render(await api.stats(view.query));
    } catch (e) {
      this.root.replaceChildren((e as Error).message);
    }
  }

  private render(stats: Stats): void {
    const types = table('By type', ['Type', 'Events'], stats.byType.map((t) => [t.type || '(none)', String(t.count)]));
    const sources = table('Top sources', ['Source', 'Events'], stats.topSources.map((s) => [s.source, String(s.count)]));
    const title = document.createElement('h2');
    title.textContent = stats.hourly ? 'Events per hour' : 'Events per day';
    const plot = document.createElement('div');
    plot.className = 'histogram';
    plot.setAttribute('role', 'img');
    plot.setAttribute('aria-label', `${title.textContent}: drag across to filter by a date range`);
    this.root.replaceChildren(types, sources, title, plot);
    this.chart?.destroy();
    const xs = stats.overTime.map((b) => toSeconds(b.start));
    const ys = stats.overTime.map((b) => b.count);
    const step = stats.hourly ? 3600 : 86400;
    this.chart = new uPlot({
      width: 300, height: 180,
      scales: { x: { time: true } },
      series: [{}, { label: 'Events', fill: 'rgba(40,100,200,0.35)', stroke: '#2864c8', paths: uPlot.paths.bars!({ size: [0.9] }) }],
      cursor: { drag: { x: true, y: false, setScale: false } },
      hooks: {
        setSelect: [(u: uPlot) => {
          if (u.select.width < 2) return;
          const from = u.posToVal(u.select.left, 'x');
          const to = u.posToVal(u.select.left + u.select.width, 'x') + step - 1;
          u.setSelect({ left: 0, width: 0, top: 0, height: 0 }, false);
          this.onRange(fromSeconds(from), fromSeconds(to));
        }],
      },
    }, [xs, ys], plot);
  }
}

// Bucket texts are the store's shown times ("2024-03-01" or "2024-03-01 14"); the chart
// works in seconds of that same clock, read as UTC so nothing shifts.
function toSeconds(text: string): number {
  const [date, hour] = text.split(' ');
  return Date.parse(`${date}T${(hour ?? '00').padStart(2, '0')}:00:00Z`) / 1000;
}

function fromSeconds(seconds: number): string {
  return new Date(Math.floor(seconds) * 1000).toISOString().slice(0, 19).replace('T', ' ');
}

function table(caption: string, heads: string[], rows: string[][]): HTMLTableElement {
  const t = document.createElement('table');
  t.createCaption().textContent = caption;
  const head = t.createTHead().insertRow();
  for (const h of heads) {
    const th = document.createElement('th');
    th.scope = 'col';
    th.textContent = h;
    head.append(th);
  }
  const body = t.createTBody();
  for (const r of rows) {
    const row = body.insertRow();
    for (const c of r) row.insertCell().textContent = c;
  }
  return t;
}
