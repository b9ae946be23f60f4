// The view the page shows: filter, order and the bookmarked-only switch. Parts of the
// page listen for changes and ask the server again.
import type { FilterJson, ViewQuery } from './api';

type Listener = () => void;

class ViewState {
  query: ViewQuery = { filter: {}, bookmarked: false, sort: '', descending: false };
  private listeners: Listener[] = [];

  onChange(listener: Listener): void { this.listeners.push(listener); }
  private changed(): void { for (const l of this.listeners) l(); }

  setFilter(filter: FilterJson): void { this.query = { ...this.query, filter }; this.changed(); }
  setBookmarked(on: boolean): void { this.query = { ...this.query, bookmarked: on }; this.changed(); }
  setSort(column: string, descending: boolean): void {
    this.query = { ...this.query, sort: column, descending };
    this.changed();
  }
}

export const view = new ViewState();
