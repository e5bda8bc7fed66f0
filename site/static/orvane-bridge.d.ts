// Types of orvane-bridge.js, the page-side client of the Orvane bridge.
// The protocol itself is described in docs/bridge.md.

/** Set by Orvane on every page before any page script runs. */
export interface PanelCaps {
  localPdfs: boolean;
  hotkey: boolean;
  dockDrop: boolean;
  /** Path of the agent executable, or "" when Orvane does not know one (yet). */
  claude: string;
  version: string;
  build: string;
}

/**
 * A paper as the PDF actions need it. `url` is where Orvane downloads the PDF;
 * a paper from the reference site's /api/papers can be passed as it is, its
 * `pdf_url` then serves as `url`.
 */
export interface PaperRef {
  id: string;
  url?: string;
  pdf_url?: string;
  etag?: string;
}

// ----- events (Orvane -> page) ---------------------------------------------

export interface ClaudeStatusEvent { type: 'claudeStatus'; path: string; sparRoot: string; }
export interface ClaudeLineEvent { type: 'claudeLine'; turn: string; line: string; }
export interface ClaudeDoneEvent { type: 'claudeDone'; turn: string; code: number; stderr: string; }
export interface PdfChangedEvent { type: 'pdfChanged'; id: string; mtime: number; size: number; }
export interface PdfOpenedEvent { type: 'pdfOpened'; id: string; }
export interface PdfReadyEvent { type: 'pdfReady'; id: string; }
export interface PdfNotReadyEvent { type: 'pdfNotReady'; id: string; }
export interface ErrorEvent { type: 'error'; id: string; message: string; }
export interface UploadedEvent {
  type: 'uploaded'; id: string; token: unknown; ok: boolean; mtime: number; error: string;
}
export interface DockDropEvent { type: 'dockDrop'; token: string; name: string; size: number; }
export interface InboxUploadedEvent {
  type: 'inboxUploaded'; token: string; ok: boolean; name: string; error: string;
}
export interface FriendQuoteEvent { type: 'friendQuote'; id: string; text: string; page: number; }
export interface UpdateProgressEvent {
  type: 'updateProgress'; stage: 'downloading' | 'unpacking' | 'checking signature' | 'installing';
}
export interface UpdateDoneEvent { type: 'updateDone'; ok: boolean; error?: string; }

export type OrvaneEvent =
  | ClaudeStatusEvent | ClaudeLineEvent | ClaudeDoneEvent
  | PdfChangedEvent | PdfOpenedEvent | PdfReadyEvent | PdfNotReadyEvent | ErrorEvent
  | UploadedEvent | DockDropEvent | InboxUploadedEvent | FriendQuoteEvent
  | UpdateProgressEvent | UpdateDoneEvent;

export type EventType = OrvaneEvent['type'];
export type EventOf<T extends EventType> = Extract<OrvaneEvent, { type: T }>;
export type Unsubscribe = () => void;

// ----- actions (page -> Orvane) --------------------------------------------

/** One file to lay down in the agent's working folder: text content or a URL to fetch. */
export interface TurnFile {
  name: string;
  content?: string;
  url?: string;
}

export interface RunClaudeBody {
  /** Made by the bridge when absent. */
  turn?: string;
  args: string[];
  files?: TurnFile[];
  prompt_head?: string;
  text_file?: string;
  prompt_tail?: string;
}

export interface Turn {
  turn: string;
  /** Resolves with the turn's last event. */
  done: Promise<ClaudeDoneEvent>;
  /** Same as stopClaude(turn). */
  stop(): boolean;
}

export declare class BridgeError extends Error {
  /** "unavailable" outside Orvane; "event" when an "error" event answered. */
  code: 'unavailable' | 'event';
  event: ErrorEvent | null;
}

export interface OrvaneBridge {
  readonly BridgeError: typeof BridgeError;
  readonly EVENT_TYPES: EventType[];
  /** True inside Orvane. */
  readonly available: boolean;
  readonly caps: PanelCaps | null;

  /** Post any action; false outside Orvane. Undefined payload values are left out. */
  post(action: string, payload?: Record<string, unknown>): boolean;
  on<T extends EventType>(type: T, handler: (event: EventOf<T>) => void): Unsubscribe;
  on(type: '*', handler: (event: OrvaneEvent) => void): Unsubscribe;
  off(type: EventType | '*', handler: (event: any) => void): void;
  once<T extends EventType>(type: T, filter?: (event: EventOf<T>) => boolean): Promise<EventOf<T>>;
  /** Deliver an event to the subscribers as if Orvane had sent it. */
  dispatch(event: OrvaneEvent): void;
  newToken(prefix?: string): string;
  absoluteUrl(url: string): string;

  hello(account: string): boolean;
  openPdf(paper: PaperRef): Promise<PdfOpenedEvent>;
  preparePdf(paper: PaperRef): Promise<PdfReadyEvent>;
  revealPdf(paper: PaperRef): boolean;
  dragPdf(id: string): boolean;
  dragFile(path: string): boolean;
  uploadFile(request: { id: string; upload_url: string; token?: string }): Promise<UploadedEvent>;
  inboxUpload(request: { token: string; upload_url: string }): Promise<InboxUploadedEvent>;
  markSynced(state: { id: string; etag: string; mtime: number }): boolean;
  runClaude(body: RunClaudeBody, options?: { onLine?: (line: string, event: ClaudeLineEvent) => void }): Turn;
  stopClaude(turn: string): boolean;
  updateApp(url: string): boolean;
  spar(id: string): boolean;
  closeSpar(): boolean;
  close(): boolean;
  previewSplit(target: PaperRef | { path: string }): boolean;
  onSparQuote(handler: (text: string) => void): void;

  onClaudeStatus(handler: (event: ClaudeStatusEvent) => void): Unsubscribe;
  onClaudeLine(handler: (event: ClaudeLineEvent) => void): Unsubscribe;
  onClaudeDone(handler: (event: ClaudeDoneEvent) => void): Unsubscribe;
  onPdfChanged(handler: (event: PdfChangedEvent) => void): Unsubscribe;
  onPdfOpened(handler: (event: PdfOpenedEvent) => void): Unsubscribe;
  onPdfReady(handler: (event: PdfReadyEvent) => void): Unsubscribe;
  onPdfNotReady(handler: (event: PdfNotReadyEvent) => void): Unsubscribe;
  onError(handler: (event: ErrorEvent) => void): Unsubscribe;
  onUploaded(handler: (event: UploadedEvent) => void): Unsubscribe;
  onDockDrop(handler: (event: DockDropEvent) => void): Unsubscribe;
  onInboxUploaded(handler: (event: InboxUploadedEvent) => void): Unsubscribe;
  onFriendQuote(handler: (event: FriendQuoteEvent) => void): Unsubscribe;
  onUpdateProgress(handler: (event: UpdateProgressEvent) => void): Unsubscribe;
  onUpdateDone(handler: (event: UpdateDoneEvent) => void): Unsubscribe;
}

declare global {
  interface Window {
    OrvaneBridge: OrvaneBridge;
    panelCaps?: PanelCaps;
    /** Called by Orvane with each event; installed by orvane-bridge.js. */
    panelEvent?: (event: OrvaneEvent) => void;
    /** Called by Orvane on the sparring page with a quote; see onSparQuote. */
    sparQuote?: (text: string) => void;
    webkit?: { messageHandlers: { panel?: { postMessage(body: unknown): void } } };
  }
}
