// The pane of the selected event: tabs Description, Data, XML and Detections.
import { api, EventDetails, Row } from './api';

const TABS = ['Description', 'Data', 'XML', 'Detections'] as const;
type Tab = typeof TABS[number];

export class Details {
  private tabs = new Map<Tab, HTMLButtonElement>();
  private panel: HTMLElement;
  private current: Tab = 'Description';
  private event: EventDetails | null = null;
  private wanted = 0;

  constructor(root: HTMLElement) {
    const list = document.createElement('div');
    list.setAttribute('role', 'tablist');
    list.setAttribute('aria-label', 'Event details');
    this.panel = document.createElement('div');
    this.panel.id = 'details-panel';
    this.panel.className = 'details-panel';
    this.panel.setAttribute('role', 'tabpanel');
    this.panel.tabIndex = 0;
    for (const name of TABS) {
      const tab = document.createElement('button');
      tab.type = 'button';
      tab.id = `tab-${name.toLowerCase()}`;
      tab.textContent = name;
      tab.setAttribute('role', 'tab');
      tab.setAttribute('aria-controls', this.panel.id);
      tab.addEventListener('click', () => this.show(name));
      tab.addEventListener('keydown', (e) => {
        const step = e.key === 'ArrowRight' ? 1 : e.key === 'ArrowLeft' ? -1 : 0;
        if (!step) return;
        const next = TABS[(TABS.indexOf(name) + step + TABS.length) % TABS.length];
        this.show(next);
        this.tabs.get(next)?.focus();
      });
      this.tabs.set(name, tab);
      list.append(tab);
    }
    root.append(list, this.panel);
    this.show('Description');
  }

  async select(row: Row | null): Promise<void> {
    const wanted = ++this.wanted;
    if (!row) {
      this.event = null;
      this.render();
      return;
    }
    try {
      const event = await api.event(row.id);
      if (wanted !== this.wanted) return;
      this.event = event;
      this.render();
    } catch (e) {
      if (wanted === this.wanted) this.panel.replaceChildren((e as Error).message);
    }
  }

  private show(tab: Tab): void {
    this.current = tab;
    for (const [name, button] of this.tabs) {
      button.setAttribute('aria-selected', String(name === tab));
      button.tabIndex = name === tab ? 0 : -1;
    }
    this.panel.setAttribute('aria-labelledby', `tab-${tab.toLowerCase()}`);
    this.render();
  }

  private render(): void {
    const event = this.event;
    if (!event) {
      this.panel.replaceChildren('No event selected.');
      return;
    }
    switch (this.current) {
      case 'Description': {
        const text = document.createElement('pre');
        text.className = 'description';
        text.textContent = event.description.replace(/^[\x00-\x1f]+/, '') || '(no description)';
        this.panel.replaceChildren(text);
        break;
      }
      case 'Data': {
        const table = document.createElement('table');
        table.className = 'data';
        const head = table.createTHead().insertRow();
        for (const title of ['Name', 'Value']) {
          const th = document.createElement('th');
          th.scope = 'col';
          th.textContent = title;
          head.append(th);
        }
        const body = table.createTBody();
        for (const item of event.data) {
          const row = body.insertRow();
          row.insertCell().textContent = item.name;
          row.insertCell().textContent = item.value;
        }
        this.panel.replaceChildren(event.data.length ? table : 'The event has no data.');
        break;
      }
      case 'XML': {
        const text = document.createElement('pre');
        text.className = 'xml';
        text.textContent = event.xml;
        this.panel.replaceChildren(text);
        break;
      }
      case 'Detections': {
        const list = document.createElement('ul');
        for (const d of event.detections) {
          const item = document.createElement('li');
          item.textContent = `[${['informational', 'low', 'medium', 'high', 'critical'][d.level] ?? d.level}] ${d.title} (by ${d.author}) — ${d.matched}`;
          list.append(item);
        }
        this.panel.replaceChildren(event.detections.length ? list : 'No detections for this event.');
        break;
      }
    }
  }
}
