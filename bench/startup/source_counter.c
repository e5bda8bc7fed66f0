/* A diagnostic for the start-up benchmark (--sources): loaded with
 * LD_PRELOAD into a program and the processes it starts, it counts every
 * dispatch of a GLib main-loop source by thread and by source name
 * (g_source_get_name), or, for an unnamed source, by the symbol nearest its
 * callback. When a file whose name starts with "dump" is made in
 * $SOURCE_COUNTER_DIR, every process writes its counts so far to
 * $SOURCE_COUNTER_DIR/<pid>.txt, one "thread<TAB>source<TAB>count" line each.
 * A thread of its own waits for that (inotify), so the counter wakes nothing
 * up between two readings.
 *
 * It sees the sources that code outside GLib attaches or names (WebKit's
 * run loops and timers, GTK's, GIO's and ours) and those made by
 * g_timeout_add, g_idle_add and their variants called from outside GLib.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <glib.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <unistd.h>

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static GHashTable* wrapped;   /* our GSourceFuncs -> the source's own */
static GHashTable* originals; /* the source's own GSourceFuncs -> ours */
static GHashTable* counts;    /* "thread\tsource" -> count */

static void ensure_tables(void) {
  if (wrapped)
    return;
  wrapped = g_hash_table_new(NULL, NULL);
  originals = g_hash_table_new(NULL, NULL);
  counts = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, NULL);
}

static void write_counts(void) {
  const char* dir = getenv("SOURCE_COUNTER_DIR");
  if (!dir)
    return;
  char path[4096], partial[4200];
  snprintf(path, sizeof path, "%s/%d.txt", dir, (int)getpid());
  snprintf(partial, sizeof partial, "%s.partial", path);
  FILE* out = fopen(partial, "w");
  if (!out)
    return;
  pthread_mutex_lock(&lock);
  ensure_tables();
  GHashTableIter it;
  gpointer key, value;
  g_hash_table_iter_init(&it, counts);
  while (g_hash_table_iter_next(&it, &key, &value))
    fprintf(out, "%s\t%lu\n", (const char*)key, (unsigned long)GPOINTER_TO_SIZE(value));
  pthread_mutex_unlock(&lock);
  fclose(out);
  rename(partial, path);
}

static void* wait_for_requests(void* unused) {
  (void)unused;
  prctl(PR_SET_NAME, "source-counter");
  const char* dir = getenv("SOURCE_COUNTER_DIR");
  int watch = dir ? inotify_init1(IN_CLOEXEC) : -1;
  if (watch < 0 || inotify_add_watch(watch, dir, IN_CREATE | IN_MOVED_TO) < 0)
    return NULL;
  char events[4096] __attribute__((aligned(__alignof__(struct inotify_event))));
  for (;;) {
    ssize_t got = read(watch, events, sizeof events);
    if (got <= 0)
      continue;
    int asked = 0;
    for (char* at = events; at < events + got;) {
      const struct inotify_event* event = (const struct inotify_event*)at;
      if (event->len && strncmp(event->name, "dump", 4) == 0)
        asked = 1;
      at += sizeof *event + event->len;
    }
    if (asked)
      write_counts();
  }
  return NULL;
}

__attribute__((constructor)) static void start_counter(void) {
  pthread_t thread;
  if (pthread_create(&thread, NULL, wait_for_requests, NULL) == 0)
    pthread_detach(thread);
}

static void label_of(GSource* source, GSourceFunc callback, const GSourceFuncs* own, char* label,
                     size_t size) {
  char thread[17] = "";
  prctl(PR_GET_NAME, thread);
  const char* name = g_source_get_name(source);
  if (name) {
    snprintf(label, size, "%s\t%s", thread, name);
    return;
  }
  void* code = callback ? (void*)callback : (void*)own->dispatch;
  Dl_info info;
  if (dladdr(code, &info) && info.dli_sname)
    snprintf(label, size, "%s\t(unnamed) %s", thread, info.dli_sname);
  else if (dladdr(code, &info) && info.dli_fname)
    snprintf(label, size, "%s\t(unnamed) %s+%#lx", thread,
             strrchr(info.dli_fname, '/') ? strrchr(info.dli_fname, '/') + 1 : info.dli_fname,
             (unsigned long)((char*)code - (char*)info.dli_fbase));
  else
    snprintf(label, size, "%s\t(unnamed) %p", thread, code);
}

static gboolean counting_dispatch(GSource* source, GSourceFunc callback, gpointer data) {
  pthread_mutex_lock(&lock);
  const GSourceFuncs* own = g_hash_table_lookup(wrapped, source->source_funcs);
  pthread_mutex_unlock(&lock);
  char label[512];
  label_of(source, callback, own, label, sizeof label);
  pthread_mutex_lock(&lock);
  gsize count = GPOINTER_TO_SIZE(g_hash_table_lookup(counts, label));
  g_hash_table_insert(counts, g_strdup(label), GSIZE_TO_POINTER(count + 1));
  pthread_mutex_unlock(&lock);
  return own->dispatch(source, callback, data);
}

/* Gives the source a copy of its functions whose dispatch counts first. */
static void count_dispatches_of(GSource* source) {
  if (!source)
    return;
  pthread_mutex_lock(&lock);
  ensure_tables();
  GSourceFuncs* funcs = (GSourceFuncs*)source->source_funcs;
  if (funcs && funcs->dispatch && !g_hash_table_contains(wrapped, funcs)) {
    GSourceFuncs* ours = g_hash_table_lookup(originals, funcs);
    if (!ours) {
      ours = g_new0(GSourceFuncs, 1);
      *ours = *funcs;
      ours->dispatch = counting_dispatch;
      g_hash_table_insert(originals, funcs, ours);
      g_hash_table_insert(wrapped, ours, funcs);
    }
    source->source_funcs = ours;
  }
  pthread_mutex_unlock(&lock);
}

guint g_source_attach(GSource* source, GMainContext* context) {
  static guint (*next)(GSource*, GMainContext*);
  if (!next)
    next = (guint(*)(GSource*, GMainContext*))dlsym(RTLD_NEXT, "g_source_attach");
  count_dispatches_of(source);
  return next(source, context);
}

void g_source_set_name(GSource* source, const char* name) {
  static void (*next)(GSource*, const char*);
  if (!next)
    next = (void (*)(GSource*, const char*))dlsym(RTLD_NEXT, "g_source_set_name");
  next(source, name);
  count_dispatches_of(source);
}

void g_source_set_name_by_id(guint tag, const char* name) {
  static void (*next)(guint, const char*);
  if (!next)
    next = (void (*)(guint, const char*))dlsym(RTLD_NEXT, "g_source_set_name_by_id");
  next(tag, name);
  count_dispatches_of(g_main_context_find_source_by_id(NULL, tag));
}

/* GLib's own g_timeout_add and g_idle_add attach inside GLib, where no
 * interposed function is called; these make the same sources through the
 * attach above. */
static guint attach_new(GSource* source, gint priority, GSourceFunc function, gpointer data,
                        GDestroyNotify notify) {
  g_source_set_priority(source, priority);
  g_source_set_callback(source, function, data, notify);
  guint id = g_source_attach(source, NULL);
  g_source_unref(source);
  return id;
}
guint g_timeout_add_full(gint priority, guint interval, GSourceFunc function, gpointer data,
                         GDestroyNotify notify) {
  return attach_new(g_timeout_source_new(interval), priority, function, data, notify);
}
guint g_timeout_add(guint interval, GSourceFunc function, gpointer data) {
  return attach_new(g_timeout_source_new(interval), G_PRIORITY_DEFAULT, function, data, NULL);
}
guint g_timeout_add_seconds_full(gint priority, guint interval, GSourceFunc function, gpointer data,
                                 GDestroyNotify notify) {
  return attach_new(g_timeout_source_new_seconds(interval), priority, function, data, notify);
}
guint g_timeout_add_seconds(guint interval, GSourceFunc function, gpointer data) {
  return attach_new(g_timeout_source_new_seconds(interval), G_PRIORITY_DEFAULT, function, data,
                    NULL);
}
guint g_idle_add_full(gint priority, GSourceFunc function, gpointer data, GDestroyNotify notify) {
  return attach_new(g_idle_source_new(), priority, function, data, notify);
}
guint g_idle_add(GSourceFunc function, gpointer data) {
  return attach_new(g_idle_source_new(), G_PRIORITY_DEFAULT_IDLE, function, data, NULL);
}
