// The events grid: a virtual list over every row of the view. Only the rows in sight are
// in the page; they are asked of the server a page at a time and kept while in use.
// ARIA grid roles throughout; the keyboard works as in a terminal viewer.
//
// Rows have one fixed height, so which rows are in sight is arithmetic on the scroll
// position: nothing is kept per row (a list library that measures each of a million rows
// spent a tenth of a second on every change of the row count). Past the height a browser
// lets an element have, the scroll bar stands for the rows in proportion.
import { api, Column, Page, Row } from './api';
import { view } from './state';

const ROW_HEIGHT = 24;
const PAGE = 60;
const OVERSCAN = 10;
const MAX_HEIGHT = 15_000_000; // px; browsers stop somewhere above
const LAYOUT_KEY = 'quorvex.columns';
const LEVELS = ['informational', 'low', 'medium', 'high', 'critical'];

interface ColumnLayout { name: string; width: number; hidden: boolean }

export class Grid {
  count = 0;
  selected = -1;
  onSelect: (row: Row | null) => void = () => {};
  onCount: (count: number) => void = () => {};
  onBusy: (busy: boolean) => void = () => {};
  onError: (message: string) => void = () => {};
  onBookmarks: (count: number) => void = () => {};

  private columns: Column[] = [];
  private layout: ColumnLayout[] = [];
  private pages = new Map<number, Row[]>();
  private pending = new Map<number, Promise<void>>();
  private generation = 0;
  private head: HTMLElement;
  private viewport: HTMLElement;
  private body: HTMLElement;
  private paintQueued = false;

  constructor(private root: HTMLElement, private columnsPane: HTMLElement) {
    this.head = el('div', 'grid-head');
    this.head.setAttribute('role', 'rowgroup');
    this.viewport = el('div', 'grid-viewport');
    this.body = el('div', 'grid-body');
    this.body.setAttribute('role', 'rowgroup');
    this.viewport.append(this.body);
    root.append(this.head, this.viewport);
    this.viewport.addEventListener('scroll', () => this.schedulePaint());
    new ResizeObserver(() => this.schedulePaint()).observe(this.viewport);
    root.addEventListener('keydown', (e) => this.key(e));
    view.onChange(() => this.reload());
  }

  setColumns(columns: Column[]): void {
    this.columns = columns;
    const saved: ColumnLayout[] = JSON.parse(localStorage.getItem(LAYOUT_KEY) ?? '[]');
    const known = new Map(saved.map((c) => [c.name, c]));
    this.layout = saved.filter((c) => columns.some((k) => k.name === c.name));
    for (const c of columns)
      if (!known.has(c.name)) this.layout.push({ name: c.name, width: c.name === 'Descr' ? 420 : c.numeric ? 90 : 150, hidden: false });
    this.root.setAttribute('aria-colcount', String(this.visible().length));
    this.paintHead();
    this.paintColumnsPane();
  }

  // The first page of the view, asked for at once (the page does so before it knows its
  // columns, to save a round trip).
  static firstPage(): Promise<Page> {
    return api.rows(view.query, 0, PAGE);
  }

  async reload(keepSelection = false, first?: Promise<Page>): Promise<void> {
    const generation = ++this.generation;
    this.pages.clear();
    this.pending.clear();
    this.onBusy(true);
    let failure: string | null = null;
    try {
      const page = await (first ?? api.rows(view.query, 0, PAGE));
      if (generation !== this.generation) return;
      this.pages.set(0, page.rows);
      this.count = page.count;
      this.root.setAttribute('aria-rowcount', String(this.count + 1));
      if (!keepSelection) {
        this.selected = this.count ? 0 : -1;
        this.viewport.scrollTop = 0;
      } else this.selected = Math.min(this.selected, this.count - 1);
      this.paintHead();
      this.paint();
      // For measuring: the first rows in sight, as the Navigation Timing clock counts.
      if (!performance.getEntriesByName('quorvex-first-rows').length) performance.mark('quorvex-first-rows');
      this.onCount(this.count);
      this.onSelect(this.rowAt(this.selected));
    } catch (e) {
      // The view the server refused shows no rows: the old ones would read as its own.
      if (generation !== this.generation) return;
      failure = (e as Error).message;
      this.count = 0;
      this.selected = -1;
      this.root.setAttribute('aria-rowcount', '1');
      this.paint();
      this.onSelect(null);
    } finally {
      if (generation === this.generation) {
        this.onBusy(false);
        if (failure !== null) this.onError(failure);
      }
    }
  }

  rowAt(index: number): Row | null {
    if (index < 0 || index >= this.count) return null;
    return this.pages.get(Math.floor(index / PAGE))?.[index % PAGE] ?? null;
  }

  private async load(page: number): Promise<void> {
    if (this.pages.has(page) || this.pending.has(page)) return;
    const generation = this.generation;
    const request = api.rows(view.query, page * PAGE, PAGE).then((result) => {
      if (generation !== this.generation) return;
      this.pages.set(page, result.rows);
      this.pending.delete(page);
      // Pages far from sight are let go, so memory stays flat while scrolling.
      const here = Math.floor(this.firstVisible() / PAGE);
      for (const key of [...this.pages.keys()]) if (Math.abs(key - here) > 20) this.pages.delete(key);
      this.paint();
      if (this.selected >= page * PAGE && this.selected < (page + 1) * PAGE) this.onSelect(this.rowAt(this.selected));
    }).catch(() => {
      // Not now (a load is running, say): asked for again when next in sight.
      this.pending.delete(page);
    });
    this.pending.set(page, request);
    return request;
  }

  private firstVisible(): number {
    const items = this.inSight();
    return items.length ? items[0].index : 0;
  }

  private visible(): ColumnLayout[] { return this.layout.filter((c) => !c.hidden); }

  private saveLayout(): void {
    localStorage.setItem(LAYOUT_KEY, JSON.stringify(this.layout));
  }

  private paintHead(): void {
    const row = el('div', 'grid-row grid-header-row');
    row.setAttribute('role', 'row');
    row.setAttribute('aria-rowindex', '1');
    row.append(gutter('', 'columnheader'));
    this.visible().forEach((layout, i) => {
      const column = this.columns.find((c) => c.name === layout.name)!;
      const cell = el('div', 'grid-cell grid-header');
      cell.setAttribute('role', 'columnheader');
      cell.setAttribute('aria-colindex', String(i + 1));
      cell.style.width = `${layout.width}px`;
      cell.draggable = true;
      const sorted = view.query.sort === column.name;
      cell.setAttribute('aria-sort', sorted ? (view.query.descending ? 'descending' : 'ascending') : 'none');
      const button = document.createElement('button');
      button.type = 'button';
      button.textContent = column.title + (sorted ? (view.query.descending ? ' ▼' : ' ▲') : '');
      if (column.sortable === false) button.disabled = true;
      else button.addEventListener('click', () => view.setSort(column.name, sorted ? !view.query.descending : false));
      const handle = el('span', 'resize');
      handle.addEventListener('pointerdown', (e) => this.resize(e, layout, cell));
      cell.addEventListener('dragstart', (e) => e.dataTransfer?.setData('text/plain', layout.name));
      cell.addEventListener('dragover', (e) => e.preventDefault());
      cell.addEventListener('drop', (e) => {
        e.preventDefault();
        const name = e.dataTransfer?.getData('text/plain');
        const from = this.layout.findIndex((c) => c.name === name);
        const to = this.layout.indexOf(layout);
        if (from < 0 || from === to) return;
        this.layout.splice(to, 0, ...this.layout.splice(from, 1));
        this.saveLayout();
        this.paintHead();
        this.paint(true);
      });
      cell.append(button, handle);
      row.append(cell);
    });
    this.head.replaceChildren(row);
  }

  private resize(e: PointerEvent, layout: ColumnLayout, cell: HTMLElement): void {
    e.preventDefault();
    const start = e.clientX, width = layout.width;
    const move = (m: PointerEvent) => {
      layout.width = Math.max(40, width + m.clientX - start);
      cell.style.width = `${layout.width}px`;
    };
    const up = () => {
      window.removeEventListener('pointermove', move);
      window.removeEventListener('pointerup', up);
      this.saveLayout();
      this.paint(true);
    };
    window.addEventListener('pointermove', move);
    window.addEventListener('pointerup', up);
  }

  private paintColumnsPane(): void {
    this.columnsPane.replaceChildren(...this.layout.map((layout) => {
      const label = document.createElement('label');
      const box = document.createElement('input');
      box.type = 'checkbox';
      box.checked = !layout.hidden;
      box.addEventListener('change', () => {
        layout.hidden = !box.checked;
        this.saveLayout();
        this.paintHead();
        this.paint(true);
      });
      label.append(box, ` Show ${this.columns.find((c) => c.name === layout.name)?.title ?? layout.name}`);
      return label;
    }));
  }

  private schedulePaint(): void {
    if (this.paintQueued) return;
    this.paintQueued = true;
    requestAnimationFrame(() => {
      this.paintQueued = false;
      this.paint();
    });
  }

  // The rows in sight (with a margin) and where each is drawn.
  private inSight(): { index: number; start: number }[] {
    const height = this.viewport.clientHeight;
    const top = this.viewport.scrollTop;
    const full = this.count * ROW_HEIGHT;
    const shown = Math.ceil(height / ROW_HEIGHT);
    let first: number, offset: number;
    if (full <= MAX_HEIGHT) {
      first = Math.floor(top / ROW_HEIGHT);
      offset = first * ROW_HEIGHT;
    } else {
      const range = Math.max(1, MAX_HEIGHT - height);
      first = Math.round((Math.min(top, range) / range) * Math.max(0, this.count - shown));
      offset = top;
    }
    const items: { index: number; start: number }[] = [];
    for (let i = Math.max(0, first - OVERSCAN); i < Math.min(this.count, first + shown + OVERSCAN); i++)
      items.push({ index: i, start: offset + (i - first) * ROW_HEIGHT });
    return items;
  }

  private scrollToRow(index: number): void {
    const height = this.viewport.clientHeight;
    if (this.count * ROW_HEIGHT > MAX_HEIGHT) {
      const shown = Math.ceil(height / ROW_HEIGHT);
      const range = Math.max(1, MAX_HEIGHT - height);
      const first = Math.round((this.viewport.scrollTop / range) * Math.max(0, this.count - shown));
      if (index < first || index >= first + shown - 1)
        this.viewport.scrollTop = (Math.max(0, index - Math.floor(shown / 2)) / Math.max(1, this.count - shown)) * range;
      return;
    }
    const top = index * ROW_HEIGHT;
    if (top < this.viewport.scrollTop) this.viewport.scrollTop = top;
    else if (top + ROW_HEIGHT > this.viewport.scrollTop + height) this.viewport.scrollTop = top + ROW_HEIGHT - height;
  }

  private paint(all = false): void {
    const items = this.inSight();
    this.body.style.height = `${Math.round(Math.min(this.count * ROW_HEIGHT, MAX_HEIGHT))}px`;
    if (all) this.body.replaceChildren();
    const rows: HTMLElement[] = [];
    const visible = this.visible();
    for (const item of items) {
      const row = this.rowAt(item.index);
      if (!row) void this.load(Math.floor(item.index / PAGE));
      const line = el('div', 'grid-row');
      line.setAttribute('role', 'row');
      line.setAttribute('aria-rowindex', String(item.index + 2));
      line.style.transform = `translateY(${item.start}px)`;
      line.dataset.index = String(item.index);
      if (item.index === this.selected) {
        line.classList.add('selected');
        line.setAttribute('aria-selected', 'true');
        this.root.setAttribute('aria-activedescendant', (line.id = 'grid-selected'));
      }
      if (row?.color) line.style.color = row.color;
      if (row?.bold) line.style.fontWeight = 'bold';
      if (row?.italic) line.style.fontStyle = 'italic';
      line.append(gutter(row?.bookmarked ? '★' : '', 'gridcell', row?.bookmarked ? 'Bookmarked' : undefined));
      visible.forEach((layout, i) => {
        const cell = el('div', 'grid-cell');
        cell.setAttribute('role', 'gridcell');
        cell.setAttribute('aria-colindex', String(i + 1));
        cell.style.width = `${layout.width}px`;
        cell.textContent = row ? cellText(row, layout.name) : '…';
        line.append(cell);
      });
      line.addEventListener('click', () => this.select(item.index));
      rows.push(line);
    }
    this.body.replaceChildren(...rows);
  }

  select(index: number): void {
    if (!this.count) return;
    this.selected = Math.max(0, Math.min(this.count - 1, index));
    this.scrollToRow(this.selected);
    this.paint();
    this.onSelect(this.rowAt(this.selected));
  }

  async toggleBookmark(): Promise<number | undefined> {
    const row = this.rowAt(this.selected);
    if (!row) return undefined;
    const result = await api.bookmark(row.id, !row.bookmarked);
    row.bookmarked = !row.bookmarked;
    this.onBookmarks(result.bookmarks);
    if (view.query.bookmarked) await this.reload(true);
    else this.paint();
    return result.bookmarks;
  }

  private key(e: KeyboardEvent): void {
    const pageRows = Math.max(1, Math.floor(this.viewport.clientHeight / ROW_HEIGHT) - 1);
    const moves: Record<string, number> = {
      ArrowDown: this.selected + 1, ArrowUp: this.selected - 1, PageDown: this.selected + pageRows,
      PageUp: this.selected - pageRows, Home: 0, End: this.count - 1,
    };
    if (e.key in moves) {
      e.preventDefault();
      this.select(moves[e.key]);
    } else if (e.key === ' ') {
      e.preventDefault();
      void this.toggleBookmark();
    } else if (e.key === 'Enter') {
      e.preventDefault();
      document.querySelector<HTMLElement>('#details [role=tab][aria-selected=true]')?.focus();
    }
  }
}

function cellText(row: Row, column: string): string {
  switch (column) {
    case 'TimeStamp': return row.time;
    case 'TypeStr': return row.type;
    case 'EventID': return String(row.eventId);
    case 'Source': return row.source;
    case 'CategoryName': return row.category;
    case 'UserName': return row.user;
    case 'Computer': return row.computer;
    case 'RecordNumber': return String(row.record);
    case 'EventLog': return String(row.log);
    case 'Descr': return row.descr;
    case 'DetectionLevel': return row.level === undefined ? '' : LEVELS[row.level] ?? String(row.level);
    default: {
      const n = Number(column.replace('CustomField', ''));
      return row.custom?.[n - 1] ?? '';
    }
  }
}

function el(tag: string, className: string): HTMLElement {
  const node = document.createElement(tag);
  node.className = className;
  return node;
}

function gutter(text: string, role: string, label?: string): HTMLElement {
  const cell = el('div', 'grid-cell grid-gutter');
  cell.setAttribute('role', role);
  cell.textContent = text;
  if (label) cell.setAttribute('aria-label', label);
  return cell;
}
