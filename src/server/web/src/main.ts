// The browser view of an event store: grid, details, filter, statistics and status bar,
// each a client of the JSON API; the page holds no logic of the engine's own.
import 'uplot/dist/uPlot.min.css';
import './app.css';
import { api, Info } from './api';
import { Details } from './details';
import { FilterForm } from './filter';
import { Grid } from './grid';
import { view } from './state';
import { Loader } from './loader';
import { StatsPanel } from './stats';

function byId<T extends HTMLElement>(id: string): T {
  return document.getElementById(id) as T;
}

function toggle(buttonId: string, pane: HTMLElement, onShow?: () => void): void {
  const button = byId<HTMLButtonElement>(buttonId);
  button.addEventListener('click', () => {
    pane.hidden = !pane.hidden;
    button.setAttribute('aria-expanded', String(!pane.hidden));
    if (!pane.hidden) onShow?.();
  });
}

async function start(): Promise<void> {
  const status = byId<HTMLElement>('status');
  let info: Info;
  // Asked for side by side, not one after the other.
  const firstPage = Grid.firstPage();
  firstPage.catch(() => undefined);
  const zoneList = api.zones().catch(() => null);
  try {
    info = await api.info();
  } catch (e) {
    status.textContent = `Cannot reach the server: ${(e as Error).message}`;
    return;
  }
  let bookmarks = info.bookmarks;
  const grid = new Grid(byId('grid'), byId('columns-pane'));
  const details = new Details(byId('details'));
  const filter = new FilterForm(byId<HTMLFormElement>('filter-pane'));
  filter.showDetections(info.detections);
  const stats = new StatsPanel(byId('stats-pane'));
  stats.onRange = (from, to) => filter.setRange(from, to);

  const showStatus = (busy: boolean) => {
    const words = FilterForm.describe(view.query.filter) + (view.query.bookmarked ? '; bookmarked only' : '');
    status.textContent = `${grid.count.toLocaleString('en-US')} event${grid.count === 1 ? '' : 's'} in view · ${info.total.toLocaleString('en-US')} in the store · ` +
      `${bookmarks} bookmarked · filter: ${words} · time zone: ${info.timeZone || 'as loaded'}${busy ? ' · working…' : ''}`;
    byId('grid').setAttribute('aria-busy', String(busy));
    document.body.classList.toggle('busy', busy);
  };
  grid.onCount = () => showStatus(false);
  grid.onBusy = showStatus;
  grid.onError = (message) => {
    status.textContent = `This view cannot be shown: ${message}`;
  };
  grid.onSelect = (row) => void details.select(row);
  grid.setColumns(info.columns);
  view.onChange(() => void stats.refresh());

  toggle('toggle-filter', byId('filter-pane'));
  toggle('toggle-stats', byId('stats-pane'), () => void stats.refresh());
  toggle('toggle-columns', byId('columns-pane'));
  const zonePick = byId<HTMLSelectElement>('time-zone');
  const fillZones = async () => {
    const zones = await zoneList;
    if (!zones) {
      zonePick.parentElement!.hidden = true;
      return;
    }
    zonePick.replaceChildren(...zones.zones.map((z) => new Option(z === zones.store ? `${z} (as stored)` : z, z, false, z === zones.display)));
    if (!zones.zones.includes(zones.display)) zonePick.prepend(new Option(`${zones.display} (as stored)`, zones.display, true, true));
  };
  zonePick.addEventListener('change', async () => {
    await api.setZone(zonePick.value);
    info = await api.info();
    await grid.reload(true);
    void stats.refresh();
  });
  byId<HTMLInputElement>('only-bookmarks').addEventListener('change', (e) => view.setBookmarked((e.target as HTMLInputElement).checked));
  byId('export').addEventListener('click', async () => {
    // The view is checked first: the download itself has no page to show an error on.
    try {
      await api.rows(view.query, 0, 1);
    } catch (e) {
      status.textContent = `Export: ${(e as Error).message}`;
      return;
    }
    // Sent as a form by POST: a view of many chosen names is too long for an address.
    const form = document.createElement('form');
    form.method = 'post';
    form.action = '/api/export';
    form.hidden = true;
    for (const [name, value] of [['format', byId<HTMLSelectElement>('export-format').value], ['view', JSON.stringify(view.query)]]) {
      const field = document.createElement('input');
      field.type = 'hidden';
      field.name = name;
      field.value = value;
      form.append(field);
    }
    document.body.append(form);
    form.submit();
    form.remove();
  });
  grid.onBookmarks = (count) => {
    bookmarks = count;
    showStatus(false);
  };
  const loader = new Loader(byId('load-bar'), byId('notices'));
  let loading = false;
  loader.onStarted = () => {
    loading = true;
    status.textContent = 'Loading logs…';
  };
  loader.onLoaded = async () => {
    loading = false;
    info = await api.info();
    filter.showDetections(info.detections);
    await grid.reload(true);
    void stats.refresh();
  };
  if (info.loading) loader.follow(info.loadEvents ?? 0);
  await Promise.all([grid.reload(false, firstPage), fillZones()]);
  if (!loading) byId('grid').focus();
}

void start();
