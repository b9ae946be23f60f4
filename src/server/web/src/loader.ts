// Opening more logs: a folder browser over the server's --root folders, the load's
// progress as the server streams it, Cancel, and Refresh for newer events.
//
// The event stream is open only while a load runs: a browser allows six connections to
// one server, and a stream open for the page's whole life would take one of them in
// every tab.
import { api } from './api';

interface Entry { name: string; path: string; folder: boolean; size?: number }

export class Loader {
  onLoaded: (notices: string[], cancelled: boolean) => void = () => {};
  onStarted: () => void = () => {};
  private dialog: HTMLDialogElement;
  private list: HTMLElement;
  private where: HTMLElement;
  private progress: HTMLProgressElement;
  private progressText: HTMLElement;
  private cancel: HTMLButtonElement;
  private notices: HTMLElement;
  private stream: EventSource | null = null;

  constructor(bar: HTMLElement, notices: HTMLElement) {
    this.notices = notices;
    this.dialog = document.createElement('dialog');
    this.dialog.setAttribute('aria-label', 'Open logs');
    const title = document.createElement('h2');
    title.textContent = 'Open logs';
    this.where = document.createElement('p');
    this.list = document.createElement('div');
    this.list.className = 'file-list';
    const load = button('Load selected');
    const close = button('Close');
    const scan = document.createElement('label');
    const scanBox = document.createElement('input');
    scanBox.type = 'checkbox';
    scan.append(scanBox, ' Deep-scan (damaged logs, raw data)');
    this.dialog.append(title, this.where, this.list, scan, load, close);
    document.body.append(this.dialog);
    close.addEventListener('click', () => this.dialog.close());
    load.addEventListener('click', async () => {
      const files = [...this.list.querySelectorAll<HTMLInputElement>('input[type=checkbox]:checked')].map((b) => b.value);
      if (!files.length) return;
      this.dialog.close();
      await this.start(() => api.load(files, scanBox.checked));
    });

    const open = button('Open logs…');
    open.addEventListener('click', () => {
      this.dialog.showModal();
      void this.browse('');
    });
    const refresh = button('Refresh');
    refresh.title = 'Load the events written to the logs since they were loaded';
    refresh.addEventListener('click', () => void this.start(() => api.refresh()));
    this.progress = document.createElement('progress');
    this.progress.max = 100;
    this.progress.setAttribute('aria-label', 'Loading');
    this.progress.hidden = true;
    this.progressText = document.createElement('span');
    this.cancel = button('Cancel');
    this.cancel.hidden = true;
    this.cancel.addEventListener('click', () => void api.cancel());
    bar.append(open, refresh, this.progress, this.progressText, this.cancel);
  }

  // Follows a load that runs already (one started before the page opened): its messages
  // after number AFTER.
  follow(after: number): void {
    this.stream?.close();
    const stream = new EventSource(`/api/events?after=${after}`);
    stream.onmessage = (e) => this.message(JSON.parse(e.data));
    stream.onerror = () => {
      // Refused (too many streams) or the server has gone: the end of the load is
      // polled for instead.
      if (stream.readyState !== EventSource.CLOSED || this.stream !== stream) return;
      this.stream = null;
      void this.pollUntilLoaded();
    };
    this.stream = stream;
  }

  private async pollUntilLoaded(): Promise<void> {
    for (;;) {
      await new Promise((resolve) => setTimeout(resolve, 1000));
      try {
        if (!(await api.info()).loading) break;
      } catch {
        // 503 while the store is written: still loading
      }
    }
    this.message({ type: 'loaded', notices: [], cancelled: false });
  }

  private async start(call: () => Promise<{ events: number }>): Promise<void> {
    try {
      this.follow((await call()).events);
    } catch (e) {
      this.notify([(e as Error).message]);
    }
  }

  private message(m: Record<string, any>): void {
    if (m.type === 'loading') {
      this.progress.hidden = false;
      this.cancel.hidden = false;
      this.progress.removeAttribute('value');
      this.progressText.textContent = 'Loading…';
      this.onStarted();
    } else if (m.type === 'progress') {
      if (m.percent >= 0) this.progress.value = m.percent;
      this.progressText.textContent = `${m.entry}: ${Number(m.loaded).toLocaleString('en-US')} events loaded`;
    } else if (m.type === 'alert') {
      this.notify([`Alert: ${m.text}`]);
    } else if (m.type === 'loaded') {
      this.stream?.close();
      this.stream = null;
      this.progress.hidden = true;
      this.cancel.hidden = true;
      this.progressText.textContent = m.cancelled ? 'Load cancelled' : '';
      this.notify(m.notices ?? []);
      this.onLoaded(m.notices ?? [], Boolean(m.cancelled));
    }
  }

  private notify(lines: string[]): void {
    for (const line of lines) {
      const item = document.createElement('li');
      item.textContent = line;
      this.notices.prepend(item);
    }
    while (this.notices.children.length > 50) this.notices.lastElementChild?.remove();
    this.notices.hidden = !this.notices.children.length;
  }

  private async browse(dir: string): Promise<void> {
    try {
      const listing = await api.files(dir);
      this.where.textContent = listing.dir || 'Folders';
      const items: HTMLElement[] = [];
      if (listing.dir) {
        const up = button('⬑ Folders');
        up.addEventListener('click', () => void this.browse(''));
        items.push(up);
      }
      for (const entry of listing.entries as Entry[]) {
        if (entry.folder) {
          const b = button(`📁 ${entry.name}`);
          b.addEventListener('click', () => void this.browse(entry.path));
          items.push(b);
        } else {
          const label = document.createElement('label');
          const box = document.createElement('input');
          box.type = 'checkbox';
          box.value = entry.path;
          label.append(box, ` ${entry.name} (${Math.ceil((entry.size ?? 0) / 1024).toLocaleString('en-US')} KB)`);
          items.push(label);
        }
      }
      this.list.replaceChildren(...items);
    } catch (e) {
      this.list.replaceChildren((e as Error).message);
    }
  }
}

function button(title: string): HTMLButtonElement {
  const b = document.createElement('button');
  b.type = 'button';
  b.textContent = title;
  return b;
}
