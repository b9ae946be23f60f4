// The filter form: every criterion of the view filter. It edits the filter's JSON; the
// server maps it onto the filter object, never onto SQL text.
import { api, FilterJson } from './api';
import { view } from './state';

const TYPES = ['verbose', 'information', 'warning', 'error', 'critical', 'audit-success', 'audit-failure'];
const LISTS: [string, string, string][] = [
  ['sources', 'Source', 'Sources'], ['categories', 'CategoryName', 'Categories'],
  ['users', 'UserName', 'Users'], ['computers', 'Computer', 'Computers'],
];
const LEVELS = ['informational', 'low', 'medium', 'high', 'critical'];
const OPS = ['equals', 'notEqual', 'contains', 'notContains', 'matches', 'notMatches', 'inList', 'notInList', 'greater', 'less'];

let unique = 0;

export class FilterForm {
  private xmlQuery = document.createElement('textarea');
  private error = document.createElement('p');
  private conditions: Record<'params' | 'columns', HTMLElement> = {
    params: document.createElement('div'), columns: document.createElement('div'),
  };

  // The detections criterion only means something in a store that was hunted.
  showDetections(shown: boolean): void {
    (this.form.querySelector('#detections-criteria') as HTMLFieldSetElement).hidden = !shown;
  }

  constructor(private form: HTMLFormElement) {
    form.noValidate = true;
    const types = fieldset('Types');
    for (const t of TYPES) types.append(check(`type-${t}`, t.replace('-', ' '), true));
    form.append(types);
    for (const [key, column, title] of LISTS) {
      const set = fieldset(title);
      const select = document.createElement('select');
      select.multiple = true;
      select.name = key;
      select.size = 4;
      select.id = `list-${key}`;
      const label = document.createElement('label');
      label.htmlFor = select.id;
      label.textContent = title;
      label.className = 'visually-hidden';
      select.addEventListener('focus', () => void this.fill(select, column), { once: true });
      set.append(label, select, check(`${key}-exclude`, 'Exclude the chosen', false));
      form.append(set);
    }
    const ids = fieldset('Event IDs');
    ids.append(text('ids', 'Event ID', '4624,4625-4630!4627'), check('ids-except', 'Except these', false));
    const descr = fieldset('Description');
    descr.append(text('descr', 'Description text', 'text or regular expression'), check('descr-regex', 'Regular expression', false),
      check('descr-exclude', 'Exclude matches', false), check('case', 'Case sensitive', false));
    const range = fieldset('Date and time');
    range.append(text('from', 'From', 'YYYY-MM-DD hh:mm:ss'), text('to', 'To', 'YYYY-MM-DD hh:mm:ss'),
      check('date-exclude', 'Exclude the range', false), text('last-days', 'Last days', '0'), text('last-hours', 'Last hours', '0'));
    const detections = fieldset('Detections');
    detections.id = 'detections-criteria';
    detections.hidden = true; // shown when the store holds detections
    const level = document.createElement('select');
    level.name = 'min-detection-level';
    level.append(new Option('(any event)', ''), ...LEVELS.map((l) => new Option(l, l)));
    const levelLabel = document.createElement('label');
    levelLabel.append('Detections at least ', level);
    detections.append(levelLabel);
    form.append(ids, descr, range, detections);
    for (const kind of ['params', 'columns'] as const) {
      const set = fieldset(kind === 'params' ? 'Description parameter conditions' : 'Custom column conditions');
      const add = button(kind === 'params' ? 'Add parameter condition' : 'Add column condition');
      add.addEventListener('click', () => this.addCondition(kind));
      set.append(this.conditions[kind], add);
      form.append(set);
    }
    const actions = document.createElement('div');
    actions.className = 'actions';
    const apply = button('Apply');
    apply.type = 'submit';
    const clear = button('Clear');
    const save = button('Save filter');
    const load = button('Load filter');
    const file = document.createElement('input');
    file.type = 'file';
    file.accept = '.xml,text/xml';
    file.hidden = true;
    actions.append(apply, clear, save, load, file);
    this.error.className = 'error';
    this.error.setAttribute('role', 'alert');
    const queryLabel = document.createElement('label');
    queryLabel.textContent = 'Equivalent XML query';
    this.xmlQuery.readOnly = true;
    this.xmlQuery.rows = 6;
    queryLabel.append(this.xmlQuery);
    form.append(actions, this.error, queryLabel);

    form.addEventListener('submit', (e) => {
      e.preventDefault();
      this.apply();
    });
    clear.addEventListener('click', () => {
      form.reset();
      for (const kind of ['params', 'columns'] as const) this.conditions[kind].replaceChildren();
      this.apply();
    });
    save.addEventListener('click', async () => {
      this.error.textContent = '';
      try {
        const result = await api.filterToXml(this.read());
        const link = document.createElement('a');
        link.href = URL.createObjectURL(new Blob([result.xml], { type: 'text/xml' }));
        link.download = 'filter.xml';
        link.click();
        URL.revokeObjectURL(link.href);
      } catch (e) {
        this.error.textContent = `Save filter: ${(e as Error).message}`;
      }
    });
    load.addEventListener('click', () => file.click());
    file.addEventListener('change', async () => {
      const chosen = file.files?.[0];
      if (!chosen) return;
      try {
        const result = await api.filterFromXml(await chosen.text());
        this.write(result.filter);
        this.apply();
      } catch (e) {
        this.error.textContent = String((e as Error).message);
      }
      file.value = '';
    });
  }

  // Sets the date range (from the histogram) and applies.
  setRange(from: string, to: string): void {
    this.input('from').value = from;
    this.input('to').value = to;
    this.apply();
  }

  private async fill(select: HTMLSelectElement, column: string): Promise<void> {
    const chosen = new Set([...select.selectedOptions].map((o) => o.value));
    const values = await api.distinct(column);
    select.replaceChildren(...values.map((v) => {
      const option = new Option(`${v.value || '(empty)'} (${v.count})`, v.value, false, chosen.has(v.value));
      return option;
    }));
    for (const value of chosen)
      if (!values.some((v) => v.value === value)) select.append(new Option(value, value, false, true));
    // The server lists the most frequent values only: the rest are typed.
    if (values.length >= DISTINCT_LIMIT) {
      const note = document.createElement('p');
      note.className = 'note';
      note.textContent = `Only the ${DISTINCT_LIMIT.toLocaleString('en-US')} most frequent values are listed; type others below, comma-separated.`;
      const typed = text(`${select.name}-typed`, 'Other values', 'name, name');
      select.after(note, typed);
    }
  }

  private addCondition(kind: 'params' | 'columns', value?: { name?: string; number?: number; op?: string; value?: string }): void {
    const row = document.createElement('div');
    row.className = 'condition';
    const first = kind === 'params' ? text('', 'Parameter', 'TargetUserName') : text('', 'Column number', '1');
    (first.querySelector('input') as HTMLInputElement).value = String(value?.name ?? value?.number ?? '');
    const op = document.createElement('select');
    op.setAttribute('aria-label', 'Operator');
    for (const o of OPS) op.append(new Option(o, o, false, o === (value?.op ?? 'equals')));
    const val = text('', 'Value', '');
    (val.querySelector('input') as HTMLInputElement).value = value?.value ?? '';
    const remove = button('Remove');
    remove.addEventListener('click', () => row.remove());
    row.append(first, op, val, remove);
    this.conditions[kind].append(row);
  }

  private input(name: string): HTMLInputElement {
    return this.form.querySelector(`[name="${name}"]`) as HTMLInputElement;
  }

  read(): FilterJson {
    const filter: FilterJson = {};
    const types = TYPES.filter((t) => this.input(`type-${t}`).checked);
    if (types.length !== TYPES.length) filter.types = types;
    for (const [key] of LISTS) {
      const select = this.form.querySelector(`[name="${key}"]`) as HTMLSelectElement;
      const values = [...select.selectedOptions].map((o) => o.value);
      const typed = this.form.querySelector<HTMLInputElement>(`[name="${key}-typed"]`);
      for (const value of typed?.value.split(',') ?? []) if (value.trim()) values.push(value.trim());
      if (values.length) filter[key] = { values, exclude: this.input(`${key}-exclude`).checked };
    }
    const ids = this.input('ids').value.trim();
    if (ids) {
      filter.ids = ids;
      filter.idsExcept = this.input('ids-except').checked;
    }
    const descr = this.input('descr').value;
    if (descr) filter.descr = { text: descr, regex: this.input('descr-regex').checked, exclude: this.input('descr-exclude').checked };
    if (this.input('case').checked) filter.caseSensitive = true;
    const from = this.input('from').value.trim(), to = this.input('to').value.trim();
    if (from) filter.from = from;
    if (to) filter.to = to;
    if ((from || to) && this.input('date-exclude').checked) filter.dateExclude = true;
    const days = whole(this.input('last-days').value, 'Last days'), hours = whole(this.input('last-hours').value, 'Last hours');
    if (days || hours) filter.last = { days, hours };
    const level = (this.form.querySelector('[name="min-detection-level"]') as HTMLSelectElement).value;
    if (level) filter.minDetectionLevel = level;
    for (const kind of ['params', 'columns'] as const) {
      const list = [...this.conditions[kind].children].map((row) => {
        const [first, , value] = [...row.querySelectorAll('input')] as HTMLInputElement[];
        const op = (row.querySelector('select') as HTMLSelectElement).value;
        return kind === 'params' ? { name: first.value, op, value: value.value } : { number: Number(first.value), op, value: value.value };
      });
      if (list.length) filter[kind] = list;
    }
    return filter;
  }

  private write(filter: FilterJson): void {
    this.form.reset();
    const f = filter as Record<string, any>;
    if (Array.isArray(f.types)) for (const t of TYPES) this.input(`type-${t}`).checked = f.types.includes(t);
    for (const [key] of LISTS) {
      const select = this.form.querySelector(`[name="${key}"]`) as HTMLSelectElement;
      select.replaceChildren(...(f[key]?.values ?? []).map((v: string) => new Option(v, v, true, true)));
      this.input(`${key}-exclude`).checked = Boolean(f[key]?.exclude);
    }
    this.input('ids').value = f.ids ?? '';
    this.input('ids-except').checked = Boolean(f.idsExcept);
    this.input('descr').value = f.descr?.text ?? '';
    this.input('descr-regex').checked = Boolean(f.descr?.regex);
    this.input('descr-exclude').checked = Boolean(f.descr?.exclude);
    this.input('case').checked = Boolean(f.caseSensitive);
    this.input('from').value = f.from ?? '';
    this.input('to').value = f.to ?? '';
    this.input('date-exclude').checked = Boolean(f.dateExclude);
    this.input('last-days').value = f.last?.days ? String(f.last.days) : '';
    this.input('last-hours').value = f.last?.hours ? String(f.last.hours) : '';
    const level = typeof f.minDetectionLevel === 'number' ? LEVELS[f.minDetectionLevel] : f.minDetectionLevel;
    (this.form.querySelector('[name="min-detection-level"]') as HTMLSelectElement).value = level ?? '';
    for (const kind of ['params', 'columns'] as const) {
      this.conditions[kind].replaceChildren();
      for (const c of f[kind] ?? []) this.addCondition(kind, c);
    }
  }

  private async apply(): Promise<void> {
    this.error.textContent = '';
    try {
      const filter = this.read();
      const result = await api.filterToXml(filter);
      this.xmlQuery.value = result.query + (result.notes?.length ? `\n<!-- ${result.notes.join('; ')} -->` : '');
      view.setFilter(filter);
    } catch (e) {
      this.error.textContent = String((e as Error).message);
    }
  }

  // The filter in words, for the status bar.
  static describe(filter: FilterJson): string {
    const f = filter as Record<string, any>;
    const parts: string[] = [];
    if (f.types) parts.push(`types ${f.types.join(', ')}`);
    for (const [key, , title] of LISTS)
      if (f[key]) parts.push(`${title.toLowerCase()} ${f[key].exclude ? 'not ' : ''}${f[key].values.join(', ')}`);
    if (f.ids) parts.push(`${f.idsExcept ? 'IDs except' : 'IDs'} ${f.ids}`);
    if (f.descr) parts.push(`description ${f.descr.exclude ? 'without' : 'with'} "${f.descr.text}"`);
    if (f.from || f.to) parts.push(`${f.dateExclude ? 'outside' : 'from'} ${f.from ?? '…'} to ${f.to ?? '…'}`);
    if (f.last) parts.push(`last ${f.last.days || 0} d ${f.last.hours || 0} h`);
    if (f.minDetectionLevel !== undefined) parts.push(`detections at least ${f.minDetectionLevel}`);
    if (f.params) parts.push(`${f.params.length} parameter condition(s)`);
    if (f.columns) parts.push(`${f.columns.length} column condition(s)`);
    return parts.length ? parts.join('; ') : 'no filter';
  }
}

// /api/distinct lists this many values at most.
const DISTINCT_LIMIT = 1000;

// A count typed in a field: empty is 0; anything but a whole number is refused, never
// taken as 0.
function whole(typed: string, title: string): number {
  const text = typed.trim();
  if (!text) return 0;
  if (!/^\d{1,6}$/.test(text)) throw new Error(`${title}: "${text}" is not a whole number`);
  return Number(text);
}

function fieldset(title: string): HTMLFieldSetElement {
  const set = document.createElement('fieldset');
  const legend = document.createElement('legend');
  legend.textContent = title;
  set.append(legend);
  return set;
}

function check(name: string, title: string, checked: boolean): HTMLLabelElement {
  const label = document.createElement('label');
  const box = document.createElement('input');
  box.type = 'checkbox';
  box.name = name;
  box.defaultChecked = checked;
  box.checked = checked;
  label.append(box, ` ${title}`);
  return label;
}

function text(name: string, title: string, placeholder: string): HTMLLabelElement {
  const label = document.createElement('label');
  const input = document.createElement('input');
  input.type = 'text';
  if (name) input.name = name;
  input.id = `field-${name || 'c'}-${++unique}`;
  input.placeholder = placeholder;
  label.htmlFor = input.id;
  label.append(`${title} `, input);
  return label;
}

function button(title: string): HTMLButtonElement {
  const b = document.createElement('button');
  b.type = 'button';
  b.textContent = title;
  return b;
}
