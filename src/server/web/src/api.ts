// The JSON calls of quorvex serve. Every view of the page is one of these calls, which a
// script can make too (with "Authorization: Bearer TOKEN").

export interface Column { name: string; title: string; numeric: boolean; sortable?: boolean }
export interface Info {
  store: string; timeZone: string; total: number; bookmarks: number;
  columns: Column[]; logs: { name: string; file: string }[]; detections: boolean;
  loading?: boolean; loadEvents?: number;
}
export interface Row {
  id: number; time: string; type: string; typeCode: number; eventId: number; source: string;
  category: string; user: string; computer: string; record: number; log: number; descr: string;
  bookmarked: boolean; custom?: (string | null)[]; color?: string; bold?: boolean; italic?: boolean;
  level?: number;
}
export interface Page { count: number; offset: number; rows: Row[] }
export interface Detection { level: number; title: string; author: string; ruleId: string; matched: string }
export interface EventDetails {
  id: number; fields: Record<string, string | number | boolean>; description: string;
  data: { name: string; value: string }[]; xml: string; detections: Detection[];
}
export interface Stats {
  total: number; byType: { type: string; count: number }[]; topSources: { source: string; count: number }[];
  overTime: { start: string; count: number }[]; hourly: boolean;
}
export type FilterJson = Record<string, unknown>;
export interface ViewQuery { filter: FilterJson; bookmarked: boolean; sort: string; descending: boolean }

async function call<T>(path: string, body?: unknown): Promise<T> {
  const response = await fetch(path, body === undefined ? { credentials: 'same-origin' } : {
    method: 'POST', credentials: 'same-origin',
    headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body),
  });
  const data = await response.json().catch(() => ({ error: `${response.status} ${response.statusText}` }));
  if (!response.ok) throw new Error((data as { error?: string }).error ?? `${response.status}`);
  return data as T;
}

export const api = {
  info: () => call<Info>('/api/info'),
  rows: (view: ViewQuery, offset: number, count: number) => call<Page>('/api/rows', { ...view, offset, count }),
  position: (view: ViewQuery, id: number) => call<{ index: number }>('/api/position', { ...view, id }),
  event: (id: number) => call<EventDetails>(`/api/event/${id}`),
  distinct: (column: string) => call<{ value: string; count: number }[]>(`/api/distinct?column=${encodeURIComponent(column)}`),
  stats: (view: ViewQuery) => call<Stats>('/api/stats', view),
  bookmark: (id: number, on: boolean) => call<{ bookmarks: number }>('/api/bookmark', { id, on }),
  filterToXml: (filter: FilterJson) => call<{ xml: string; query: string; notes: string[] }>('/api/filter/xml', { filter }),
  filterFromXml: (xml: string) => call<{ filter: FilterJson }>('/api/filter/parse', { xml }),
  files: (dir: string) => call<{ dir: string; entries: unknown[] }>(`/api/files?dir=${encodeURIComponent(dir)}`),
  // "events": the number of the event stream's last message before the load's first.
  load: (files: string[], scan: boolean) => call<{ started: boolean; events: number }>('/api/load', { files, scan }),
  refresh: () => call<{ started: boolean; events: number }>('/api/refresh', {}),
  cancel: () => call<{ cancelled: boolean }>('/api/cancel', {}),
  zones: () => call<{ store: string; display: string; zones: string[] }>('/api/zones'),
  setZone: (zone: string) => call<{ store: string; display: string }>('/api/zone', { zone }),
  exportUrl: (view: ViewQuery, format: string) =>
    `/api/export?format=${encodeURIComponent(format)}&view=${encodeURIComponent(JSON.stringify(view))}`,
};
