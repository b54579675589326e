/* snmp_collector: collects the values of an SNMP agent's subtrees and prints them as a table
 * (OID, type, value) or as CSV, with libzel_utils doing the request description, the rows, the
 * hand-over between threads, the request ids and the rendering of the values.
 *
 *   main       builds the configuration string of the request (zel_util_config_*), prints it,
 *              starts the writer thread, then the collector thread, and waits for both;
 *   collector  walks each subtree of the request with GETBULK requests, whose request ids come
 *              from an ID manager (zel_id_mgr_*) bound to the walk; it turns every response into
 *              one row of value items (zel_row_data_t) and sends the row's address over a client
 *              channel (lib_itc_*);
 *   writer     runs its own dispatch manager with the server channel; each row it receives is
 *              rendered with the library's conversions (zel_convert_stream_to_*) and printed.
 * Afterwards main checks every rendered value against net-snmp's own rendering of the same
 * value, and times both renderings over the same values.
 *
 * Why net-snmp's C library and not its command-line tools run through zel_lib_pipe_cmd: the
 * library hands over each value exactly as it came off the wire (bytes, arcs, numbers), so
 * nothing has to be parsed back out of a text meant for people (whose quoting, line breaks in
 * long hex strings and MIB-dependent formats would need a decoder of their own), and net-snmp's
 * renderer can be called on the very same value in the same process: the cross-check compares
 * like with like and the timing compares two renderers, not a renderer with a process start.
 *
 * A row carries one GETBULK response: for each variable two value items, its name (an object
 * identifier as 32-bit arcs) and its value; the value's tag is its BER type (0x04 octet string,
 * 0x06 object identifier, 0x40 IpAddress, 0x02, 0x41 to 0x43, 0x46 and 0x47 the numbers).
 * word0 is the request id, word1 the index of the subtree in the request. A row of kind
 * ZEL_ROW_DATA_COMPLETE ends the stream. The row's address travels in the channel message; the
 * receiver owns the row from then on.
 *
 * Output: the table (or CSV) goes to standard output, or to the file given with --output; the
 * request, the cross-check and the summary go to standard error. Every trace point of the
 * library echoes its message to standard output whatever the modules' flags, so when the data
 * is to be read by a program, give --output: only the table goes into that file.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <getopt.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <kro/dm.h>
#include <zel/config.h>
#include <zel/convert.h>
#include <zel/data.h>
#include <zel/id_mgr.h>
#include <zel/itc.h>
#include <zel/trace.h>
#include <zel/version.h>

/* BER types carried in the value items' tag. */
enum {
  COLL_T_INTEGER = 0x02,
  COLL_T_OCTETS = 0x04,
  COLL_T_OID = 0x06,
  COLL_T_IPADDR = 0x40,
  COLL_T_COUNTER32 = 0x41,
  COLL_T_GAUGE32 = 0x42,
  COLL_T_TIMETICKS = 0x43,
  COLL_T_OPAQUE = 0x44,
  COLL_T_COUNTER64 = 0x46,
  COLL_T_UINTEGER = 0x47
};

/* Exit statuses. */
enum { COLL_OK = 0, COLL_MISMATCH = 1, COLL_USAGE = 2, COLL_AGENT = 3, COLL_FAILED = 4 };

#define COLL_MAX_SUBTREES 16
#define COLL_CHANNEL "snmp-collector.rows"

static const char *const coll_default_subtrees[] = {
    "1.3.6.1.2.1.1",      /* system */
    "1.3.6.1.2.1.2",      /* interfaces */
    "1.3.6.1.2.1.4.20",   /* ipAddrTable */
    "1.3.6.1.2.1.25.2",   /* hrStorage */
    "1.3.6.1.2.1.31.1.1", /* ifXTable */
};

typedef struct coll_options {
  const char *agent;
  const char *community;
  const char *output;
  const char *subtrees[COLL_MAX_SUBTREES];
  unsigned nsubtrees;
  int csv;
  long max_repetitions;
} coll_options_t;

/* A growable array of pointers (the rows the writer kept, the net-snmp variables the
 * collector kept), in arrival order. */
typedef struct coll_ptrs {
  void **v;
  size_t n, cap;
} coll_ptrs_t;

static int coll_ptrs_push(coll_ptrs_t *a, void *p) {
  if (a->n == a->cap) {
    size_t cap = a->cap ? 2 * a->cap : 256;
    void **v = realloc(a->v, cap * sizeof *v);
    if (v == NULL) {
      return -1;
    }
    a->v = v;
    a->cap = cap;
  }
  a->v[a->n++] = p;
  return 0;
}

/* The writer: its dispatch manager, its server channel, where it prints, what it kept. */
typedef struct coll_writer {
  kro_dm_t *dm;
  uint32_t server;
  FILE *out;
  int csv;
  int done;   /* the completion row has arrived (atomic: main may set it too) */
  int failed; /* a row could not be received, rendered or kept */
  coll_ptrs_t rows;
  size_t values;
  char *buf; /* rendering buffers, grown as needed */
  size_t buf_cap;
  char *name;
  size_t name_cap;
  uint64_t end_ns; /* when the completion row was handled */
  pthread_mutex_t lock;
  pthread_cond_t cond;
  int ready; /* 1: server open, -1: setup failed */
} coll_writer_t;

/* The collector: the SNMP session, the subtrees, the ID manager of the request ids. */
typedef struct coll_collector {
  const coll_options_t *opt;
  void *session;
  kro_dm_t *dm;
  uint32_t client;
  zel_id_mgr_t ids;
  coll_ptrs_t responses; /* netsnmp_pdu *, freed at the end */
  coll_ptrs_t vars;      /* netsnmp_variable_list *, one per value sent, in order */
  size_t rows;
  int status; /* COLL_OK, COLL_AGENT or COLL_FAILED */
  char error[256];
} coll_collector_t;

static uint64_t coll_now_ns(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (uint64_t)ts.tv_sec * 1000000000u + (uint64_t)ts.tv_nsec;
}

/* ---- Rendering ----------------------------------------------------------------------------- */

static const char *coll_type_name(uint32_t tag) {
  switch (tag) {
    case COLL_T_INTEGER:
      return "INTEGER";
    case COLL_T_OCTETS:
      return "STRING";
    case COLL_T_OID:
      return "OID";
    case COLL_T_IPADDR:
      return "IpAddress";
    case COLL_T_COUNTER32:
      return "Counter32";
    case COLL_T_GAUGE32:
      return "Gauge32";
    case COLL_T_TIMETICKS:
      return "Timeticks";
    case COLL_T_OPAQUE:
      return "Opaque";
    case COLL_T_COUNTER64:
      return "Counter64";
    case COLL_T_UINTEGER:
      return "UInteger32";
    default:
      return "other";
  }
}

/* Whether the library renders values of this type: everything but the numbers, which are
 * printed here. Addresses and object identifiers have their own conversions; every other type
 * (octet strings, opaque values, anything unknown) goes through the octet string conversion. */
static int coll_library_renders(uint32_t tag) {
  return !(tag == COLL_T_INTEGER || tag == COLL_T_COUNTER32 || tag == COLL_T_GAUGE32 ||
           tag == COLL_T_TIMETICKS || tag == COLL_T_COUNTER64 || tag == COLL_T_UINTEGER);
}

/* Makes room for `need` characters and a terminator in *buf. */
static int coll_reserve(char **buf, size_t *cap, size_t need) {
  if (need + 2 > *cap) {
    size_t n = need + 2 > 256 ? need + 2 : 256;
    char *b = realloc(*buf, n);
    if (b == NULL) {
      return -1;
    }
    *buf = b;
    *cap = n;
  }
  return 0;
}

/* Renders one value into *buf (terminated) and returns its length, or -1 when memory runs
 * out. Addresses, object identifiers and octet strings go through the library's conversions;
 * numbers are printed in decimal, as the library has no conversion of its own for them. */
static long coll_render(const zel_data_value_t *v, char **buf, size_t *cap) {
  uint32_t tag = v->tag;
  if (tag == COLL_T_OID || tag == COLL_T_IPADDR) {
    int32_t n = tag == COLL_T_OID ? zel_convert_stream_to_oid_str(NULL, 0, v)
                                  : zel_convert_stream_to_ip_addr_str(NULL, 0, v);
    if (n < 0 || coll_reserve(buf, cap, (size_t)n) != 0) {
      return -1;
    }
    if (n == 0) {
      (*buf)[0] = '\0';
      return 0;
    }
    if (tag == COLL_T_OID) {
      zel_convert_stream_to_oid_str(*buf, (uint32_t)n, v);
    } else {
      zel_convert_stream_to_ip_addr_str(*buf, (uint32_t)n, v);
    }
    return n;
  }
  if (coll_library_renders(tag)) {
    uint32_t len = zel_convert_stream_to_ascii_or_hex_len(v, v->len);
    uint32_t written;
    if (coll_reserve(buf, cap, (size_t)len + 1) != 0) {
      return -1;
    }
    written = zel_convert_stream_to_ascii_or_hex(*buf, len, v, v->len);
    (*buf)[written] = '\0';
    return (long)written;
  }
  if (coll_reserve(buf, cap, 24) != 0) {
    return -1;
  }
  if (tag == COLL_T_COUNTER64 && v->len == 8) {
    uint64_t x;
    memcpy(&x, v->data, 8);
    return snprintf(*buf, *cap, "%llu", (unsigned long long)x);
  }
  if (v->len == 4) {
    uint32_t x;
    memcpy(&x, v->data, 4);
    if (tag == COLL_T_INTEGER) {
      return snprintf(*buf, *cap, "%ld", (long)(int32_t)x);
    }
    return snprintf(*buf, *cap, "%lu", (unsigned long)x);
  }
  (*buf)[0] = '\0';
  return 0;
}

/* ---- The writer thread --------------------------------------------------------------------- */

static void coll_writer_print_row(coll_writer_t *w, const zel_row_data_t *row) {
  uint32_t i;
  for (i = 0; i + 1 < row->count; i += 2) {
    const zel_data_value_t *n = row->items[i];
    const zel_data_value_t *v = row->items[i + 1];
    if (coll_render(n, &w->name, &w->name_cap) < 0 || coll_render(v, &w->buf, &w->buf_cap) < 0) {
      w->failed = 1;
      break;
    }
    if (w->csv) {
      fprintf(w->out, "%s,%s,%s\n", w->name, coll_type_name(v->tag), w->buf);
    } else {
      fprintf(w->out, "%-34s %-10s %s\n", w->name, coll_type_name(v->tag), w->buf);
    }
    ++w->values;
  }
}

/* The server channel's callback, on the writer thread: takes each row, prints it and keeps it
 * for the cross-check. */
static void coll_writer_on_message(uint32_t handle, uint32_t type, void *cookie) {
  coll_writer_t *w = cookie;
  uint32_t sender, length;
  void *payload;
  zel_row_data_t *row;
  if (type != LIB_ITC_MSG_DATA) {
    return; /* connection events: nothing to do */
  }
  if (lib_itc_receive(handle, &sender, &payload, &length) != LIB_ITC_OK) {
    w->failed = 1;
    return;
  }
  if (length != sizeof row) {
    lib_itc_free(handle, payload);
    w->failed = 1;
    return;
  }
  memcpy(&row, payload, sizeof row);
  lib_itc_free(handle, payload);
  coll_writer_print_row(w, row);
  if (row->kind == ZEL_ROW_DATA_COMPLETE) {
    __atomic_store_n(&w->done, 1, __ATOMIC_RELAXED);
    w->end_ns = coll_now_ns();
    zel_row_data_t_cleanup(row);
  } else if (coll_ptrs_push(&w->rows, row) != 0) {
    zel_row_data_t_cleanup(row);
    w->failed = 1;
  }
}

static void coll_writer_signal(coll_writer_t *w, int ready) {
  pthread_mutex_lock(&w->lock);
  w->ready = ready;
  pthread_cond_signal(&w->cond);
  pthread_mutex_unlock(&w->lock);
}

/* Runs a dispatch manager until its channels' clean-up has run, then destroys it. */
static void coll_dm_finish(kro_dm_t **dm) {
  int i;
  for (i = 0; i < 100 && kro_dm_destroy(dm) == KRO_DM_EBUSY; ++i) {
    kro_dm_dispatch(*dm);
  }
}

static void *coll_writer_main(void *arg) {
  coll_writer_t *w = arg;
  lib_itc_attr_t attr = {0, 512, 512 * sizeof(zel_row_data_t *)};
  if (kro_dm_create(&w->dm) != KRO_DM_OK) {
    coll_writer_signal(w, -1);
    return NULL;
  }
  if (lib_itc_open(&w->server, COLL_CHANNEL, LIB_ITC_SERVER, &attr, w->dm, coll_writer_on_message,
                   w) != LIB_ITC_OK) {
    kro_dm_destroy(&w->dm);
    coll_writer_signal(w, -1);
    return NULL;
  }
  coll_writer_signal(w, 1);
  while (!__atomic_load_n(&w->done, __ATOMIC_RELAXED)) {
    if (kro_dm_wait(w->dm) != KRO_DM_OK || kro_dm_dispatch(w->dm) != KRO_DM_OK) {
      w->failed = 1;
      break;
    }
  }
  fflush(w->out);
  lib_itc_close(&w->server);
  coll_dm_finish(&w->dm);
  return NULL;
}

/* ---- The collector thread ------------------------------------------------------------------ */

/* The client channel's callback: notifications only (the server never sends data back). */
static void coll_client_on_message(uint32_t handle, uint32_t type, void *cookie) {
  (void)handle;
  (void)type;
  (void)cookie;
}

/* A value item holding `len` bytes. */
static zel_data_value_t *coll_value(uint32_t tag, const void *bytes, size_t len) {
  zel_data_value_t *v = calloc(1, sizeof *v);
  if (v == NULL) {
    return NULL;
  }
  v->tag = tag;
  v->len = (uint32_t)len;
  v->data = malloc(len ? len : 1);
  if (v->data == NULL) {
    free(v);
    return NULL;
  }
  if (len && bytes != NULL) {
    memcpy(v->data, bytes, len);
  }
  return v;
}

/* An object identifier as the library reads it: 32-bit arcs in host byte order. */
static zel_data_value_t *coll_oid_value(const oid *arcs, size_t n) {
  zel_data_value_t *v = coll_value(COLL_T_OID, NULL, n * 4);
  size_t i;
  if (v == NULL) {
    return NULL;
  }
  for (i = 0; i < n; ++i) {
    uint32_t a = (uint32_t)arcs[i];
    memcpy(v->data + 4 * i, &a, 4);
  }
  return v;
}

/* The value item of a variable, its bytes as they came off the wire. */
static zel_data_value_t *coll_var_value(const netsnmp_variable_list *var) {
  switch (var->type) {
    case ASN_OBJECT_ID:
      return coll_oid_value(var->val.objid, var->val_len / sizeof(oid));
    case ASN_INTEGER: {
      int32_t x = (int32_t)*var->val.integer;
      return coll_value(COLL_T_INTEGER, &x, 4);
    }
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
    case ASN_UINTEGER: {
      uint32_t x = (uint32_t)*var->val.integer;
      return coll_value(var->type, &x, 4);
    }
    case ASN_COUNTER64: {
      uint64_t x = ((uint64_t)var->val.counter64->high << 32) | (uint32_t)var->val.counter64->low;
      return coll_value(COLL_T_COUNTER64, &x, 8);
    }
    default:
      return coll_value(var->type, var->val.string, var->val_len);
  }
}

/* Sends a row to the writer; waits while the writer's queue or budget is full, up to about
 * ten seconds. */
static int coll_send_row(coll_collector_t *c, zel_row_data_t *row) {
  void *payload;
  int rc, tries = 0;
  if (lib_itc_alloc(c->client, sizeof row, &payload) != LIB_ITC_OK) {
    return -1;
  }
  memcpy(payload, &row, sizeof row);
  while (((rc = lib_itc_send(c->client, 0, payload)) == KRO_DM_EAGAIN || rc == LIB_ITC_ENOSPC) &&
         ++tries < 50000) {
    struct timespec pause = {0, 200000};
    kro_dm_dispatch(c->dm);
    nanosleep(&pause, NULL);
  }
  if (rc != LIB_ITC_OK) {
    lib_itc_free(c->client, payload);
    return -1;
  }
  kro_dm_dispatch(c->dm); /* the client's own notifications */
  return 0;
}

/* Walks one subtree with GETBULK requests and sends one row per response. */
static int coll_walk(coll_collector_t *c, uint32_t index, const oid *root, size_t root_len) {
  oid name[MAX_OID_LEN];
  size_t name_len = root_len;
  int more = 1;
  memcpy(name, root, root_len * sizeof(oid));
  while (more) {
    netsnmp_pdu *pdu = snmp_pdu_create(SNMP_MSG_GETBULK);
    netsnmp_pdu *resp = NULL;
    netsnmp_variable_list *var;
    zel_row_data_t *row;
    uint32_t id, nvars = 0, i = 0;
    int status;
    if (pdu == NULL) {
      return COLL_FAILED;
    }
    pdu->non_repeaters = 0;
    pdu->max_repetitions = c->opt->max_repetitions;
    snmp_add_null_var(pdu, name, name_len);
    /* The request id names the walk: the response is matched back to it through the ID
     * manager, and the id travels in the rows. */
    if (zel_id_mgr_get_id(&c->ids, c, &id) != ZEL_ID_MGR_OK) {
      snmp_free_pdu(pdu);
      return COLL_FAILED;
    }
    pdu->reqid = (long)id;
    status = snmp_sess_synch_response(c->session, pdu, &resp);
    if (status != STAT_SUCCESS || resp == NULL) {
      snprintf(c->error, sizeof c->error, "no answer from the agent at %s (%s)", c->opt->agent,
               status == STAT_TIMEOUT
                   ? "timeout"
                   : snmp_api_errstring(snmp_sess_session(c->session)->s_snmp_errno));
      if (resp != NULL) {
        snmp_free_pdu(resp);
      }
      zel_id_mgr_delete_id(&c->ids, id);
      return COLL_AGENT;
    }
    if (zel_id_mgr_id_to_ctx(&c->ids, (uint32_t)resp->reqid) != c) {
      snprintf(c->error, sizeof c->error, "response with request id %ld matches no request",
               resp->reqid);
      snmp_free_pdu(resp);
      zel_id_mgr_delete_id(&c->ids, id);
      return COLL_FAILED;
    }
    zel_id_mgr_delete_id(&c->ids, id);
    if (resp->errstat != SNMP_ERR_NOERROR) {
      snprintf(c->error, sizeof c->error, "the agent refused the request: %s",
               snmp_errstring((int)resp->errstat));
      snmp_free_pdu(resp);
      return COLL_AGENT;
    }
    /* The variables of this subtree, up to the first past its end. */
    for (var = resp->variables; var != NULL; var = var->next_variable) {
      if (var->type == SNMP_ENDOFMIBVIEW || var->type == SNMP_NOSUCHOBJECT ||
          var->type == SNMP_NOSUCHINSTANCE ||
          snmp_oidtree_compare(root, root_len, var->name, var->name_length) != 0 ||
          snmp_oid_compare(name, name_len, var->name, var->name_length) >= 0) {
        more = 0;
        break;
      }
      memcpy(name, var->name, var->name_length * sizeof(oid));
      name_len = var->name_length;
      ++nvars;
    }
    if (nvars == 0) {
      snmp_free_pdu(resp);
      break;
    }
    row = calloc(1, sizeof *row);
    if (row == NULL || (row->items = calloc(2 * (size_t)nvars, sizeof(void *))) == NULL ||
        coll_ptrs_push(&c->responses, resp) != 0) {
      free(row);
      snmp_free_pdu(resp);
      return COLL_FAILED;
    }
    row->kind = ZEL_ROW_DATA_VALUE;
    row->count = 2 * nvars;
    row->word0 = id;
    row->word1 = index;
    for (var = resp->variables; i < nvars; var = var->next_variable, ++i) {
      row->items[2 * i] = coll_oid_value(var->name, var->name_length);
      row->items[2 * i + 1] = coll_var_value(var);
      if (row->items[2 * i] == NULL || row->items[2 * i + 1] == NULL ||
          coll_ptrs_push(&c->vars, var) != 0) {
        zel_row_data_t_cleanup(row);
        return COLL_FAILED;
      }
    }
    if (coll_send_row(c, row) != 0) {
      zel_row_data_t_cleanup(row);
      return COLL_FAILED;
    }
    ++c->rows;
  }
  return COLL_OK;
}

static void *coll_collector_main(void *arg) {
  coll_collector_t *c = arg;
  zel_row_data_t *end;
  unsigned i;
  c->status = COLL_FAILED;
  if (kro_dm_create(&c->dm) != KRO_DM_OK) {
    return NULL;
  }
  if (lib_itc_open(&c->client, COLL_CHANNEL, LIB_ITC_CLIENT, NULL, c->dm, coll_client_on_message,
                   c) != LIB_ITC_OK) {
    kro_dm_destroy(&c->dm);
    return NULL;
  }
  c->status = COLL_OK;
  for (i = 0; i < c->opt->nsubtrees && c->status == COLL_OK; ++i) {
    oid root[MAX_OID_LEN];
    size_t root_len = MAX_OID_LEN;
    if (read_objid(c->opt->subtrees[i], root, &root_len) == 0) {
      snprintf(c->error, sizeof c->error, "not an object identifier: %s", c->opt->subtrees[i]);
      c->status = COLL_FAILED;
      break;
    }
    c->status = coll_walk(c, i, root, root_len);
  }
  /* The completion row ends the writer's stream, whatever happened. */
  end = calloc(1, sizeof *end);
  if (end != NULL) {
    end->kind = ZEL_ROW_DATA_COMPLETE;
    end->word0 = (uint32_t)c->rows;
    if (coll_send_row(c, end) != 0) {
      zel_row_data_t_cleanup(end);
      end = NULL;
    }
  }
  if (end == NULL) {
    c->status = COLL_FAILED; /* the writer is told by the channel's end instead */
  }
  lib_itc_close(&c->client);
  coll_dm_finish(&c->dm);
  return NULL;
}

/* ---- The cross-check ----------------------------------------------------------------------- */

/* Types whose renderings can be compared: the library's (octet strings, object identifiers,
 * addresses) and the numbers. Others, such as the opaque-wrapped floats that net-snmp decodes
 * and prints as numbers while the library sees their bytes, are printed but not compared. */
static int coll_comparable(uint32_t tag) {
  return tag == COLL_T_OCTETS || tag == COLL_T_OID || tag == COLL_T_IPADDR ||
         !coll_library_renders(tag);
}

/* Removes one pair of enclosing double quotes. */
static void coll_unquote(char *s) {
  size_t n = strlen(s);
  if (n >= 2 && s[0] == '"' && s[n - 1] == '"') {
    memmove(s, s + 1, n - 2);
    s[n - 2] = '\0';
  }
}

/* net-snmp's rendering brought to the library's documented forms: the type prefix goes
 * ("STRING: ", "OID: ", ...); a hex string's spaced upper-case bytes become colon-joined
 * lower-case ones; the leading dot of an object identifier goes; the enclosing quotes of a
 * string go (the library quotes only texts holding a comma, a double quote or a line feed, and
 * those quotes are removed on its side too); time ticks keep their number. */
static void coll_normalise_netsnmp(char *s) {
  char *colon = strstr(s, ": ");
  char *p, *q;
  int hex = strncmp(s, "Hex-STRING: ", 12) == 0;
  int ticks = strncmp(s, "Timeticks: ", 11) == 0;
  if (colon != NULL && s[0] != '"' && strcspn(s, ": \"") == (size_t)(colon - s)) {
    memmove(s, colon + 2, strlen(colon + 2) + 1);
  }
  if (hex) {
    for (p = q = s; *p; ++p) {
      if (*p == ' ' || *p == '\n') {
        if (q != s && q[-1] != ':') {
          *q++ = ':';
        }
      } else {
        *q++ = (char)(*p >= 'A' && *p <= 'F' ? *p - 'A' + 'a' : *p);
      }
    }
    if (q != s && q[-1] == ':') {
      --q;
    }
    *q = '\0';
  } else if (ticks && s[0] == '(') {
    size_t n = strcspn(s + 1, ")");
    memmove(s, s + 1, n);
    s[n] = '\0';
  } else if (s[0] == '.') {
    memmove(s, s + 1, strlen(s));
  } else {
    coll_unquote(s);
  }
}

/* The library's rendering without its enclosing quotes (quoted text, hex form, address). */
static void coll_normalise_library(char *s) {
  coll_unquote(s);
}

/* net-snmp's rendering of one variable into buf, without a MIB (no hints, enums or units):
 * the same plain value the library renders. Returns 0, or -1 when it does not fit. */
static int coll_netsnmp_render(const netsnmp_variable_list *var, char *buf, size_t cap) {
  u_char *b = (u_char *)buf;
  size_t out_len = 0;
  buf[0] = '\0';
  return sprint_realloc_by_type(&b, &cap, &out_len, 0, var, NULL, NULL, NULL) ? 0 : -1;
}

typedef struct coll_check {
  size_t compared;
  size_t skipped; /* values of types with no documented rendering on one side (opaque floats) */
  size_t mismatches;
  size_t library_values; /* values of the library's types, the ones timed */
  double library_ns;     /* median rendering time per value */
  double netsnmp_ns;
} coll_check_t;

static int coll_cmp_double(const void *a, const void *b) {
  double x = *(const double *)a, y = *(const double *)b;
  return (x > y) - (x < y);
}

/* Compares every value the writer printed with net-snmp's rendering of the variable it came
 * from, then times both renderings over the values of the library's types. */
static int coll_cross_check(const coll_writer_t *w, const coll_collector_t *c, coll_check_t *r) {
  enum { ROUNDS = 5 };
  char *lib = NULL, *ref = malloc(65536 * 4);
  size_t lib_cap = 0, k = 0, i, round;
  const zel_data_value_t **timed_values;
  const netsnmp_variable_list **timed_vars;
  double lib_ns[ROUNDS], ref_ns[ROUNDS];
  memset(r, 0, sizeof *r);
  if (ref == NULL) {
    return -1;
  }
  timed_values = calloc(c->vars.n + 1, sizeof *timed_values);
  timed_vars = calloc(c->vars.n + 1, sizeof *timed_vars);
  if (timed_values == NULL || timed_vars == NULL) {
    free(timed_values);
    free(timed_vars);
    free(ref);
    return -1;
  }
  for (i = 0; i < w->rows.n; ++i) {
    const zel_row_data_t *row = w->rows.v[i];
    uint32_t j;
    for (j = 1; j < row->count; j += 2, ++k) {
      const zel_data_value_t *v = row->items[j];
      const netsnmp_variable_list *var = k < c->vars.n ? c->vars.v[k] : NULL;
      if (var != NULL && !coll_comparable(v->tag)) {
        ++r->skipped;
        continue;
      }
      if (var == NULL || coll_render(v, &lib, &lib_cap) < 0 ||
          coll_netsnmp_render(var, ref, 65536 * 4) != 0) {
        ++r->mismatches;
        continue;
      }
      ++r->compared;
      coll_normalise_library(lib);
      coll_normalise_netsnmp(ref);
      if (strcmp(lib, ref) != 0) {
        char name[MAX_OID_LEN * 11];
        ++r->mismatches;
        snprint_objid(name, sizeof name, var->name, var->name_length);
        fprintf(stderr, "mismatch at %s: library [%s], net-snmp [%s]\n", name, lib, ref);
      }
      if (v->tag == COLL_T_OCTETS || v->tag == COLL_T_OID || v->tag == COLL_T_IPADDR) {
        timed_values[r->library_values] = v;
        timed_vars[r->library_values++] = var;
      }
    }
  }
  if (k != c->vars.n) {
    fprintf(stderr, "the writer printed %zu values, the collector sent %zu\n", k, c->vars.n);
    ++r->mismatches;
  }
  /* Timing: the same values through both renderers, each round alternating which goes first,
   * enough passes per round for a few milliseconds; the median round per value is reported. */
  if (r->library_values > 0) {
    size_t passes = 20000 / r->library_values + 1, p;
    for (round = 0; round < ROUNDS; ++round) {
      int phase;
      for (phase = 0; phase < 2; ++phase) {
        int library_turn = (phase == 0) == (round % 2 == 0);
        uint64_t t0 = coll_now_ns();
        for (p = 0; p < passes; ++p) {
          for (i = 0; i < r->library_values; ++i) {
            if (library_turn) {
              coll_render(timed_values[i], &lib, &lib_cap);
            } else {
              coll_netsnmp_render(timed_vars[i], ref, 65536 * 4);
            }
          }
        }
        (library_turn ? lib_ns : ref_ns)[round] =
            (double)(coll_now_ns() - t0) / (double)(passes * r->library_values);
      }
    }
    qsort(lib_ns, ROUNDS, sizeof lib_ns[0], coll_cmp_double);
    qsort(ref_ns, ROUNDS, sizeof ref_ns[0], coll_cmp_double);
    r->library_ns = lib_ns[ROUNDS / 2];
    r->netsnmp_ns = ref_ns[ROUNDS / 2];
  }
  free(timed_values);
  free(timed_vars);
  free(lib);
  free(ref);
  return 0;
}

/* ---- main ---------------------------------------------------------------------------------- */

static void coll_usage(FILE *f) {
  fprintf(f,
          "usage: snmp_collector [--agent HOST:PORT] [--community NAME] [--oid OID]...\n"
          "                      [--csv] [--output FILE] [--max-repetitions N]\n"
          "Walks the agent's subtrees with SNMPv2c GETBULK requests and prints every value as a\n"
          "table (OID, type, value) or CSV; then checks each value against net-snmp's rendering\n"
          "and prints a summary.\n"
          "  --agent HOST:PORT    the agent (default 127.0.0.1:161)\n"
          "  --community NAME     the read community (default public)\n"
          "  --oid OID            a subtree to walk, numeric (repeatable; default: system,\n"
          "                       interfaces, ipAddrTable, hrStorage, ifXTable)\n"
          "  --csv                CSV (oid,type,value) instead of the table\n"
          "  --output FILE        the table or CSV into FILE instead of standard output\n"
          "  --max-repetitions N  variables per GETBULK response (default 25)\n"
          "  --help               this text\n"
          "Exit status: 0 all values match, 1 mismatches, 2 usage, 3 agent unavailable,\n"
          "4 other failure. libzel_utils %s.\n",
          zel_version());
}

static int coll_parse(int argc, char **argv, coll_options_t *o) {
  static const struct option longopts[] = {
      {"agent", required_argument, NULL, 'a'},  {"community", required_argument, NULL, 'c'},
      {"oid", required_argument, NULL, 'o'},    {"csv", no_argument, NULL, 'v'},
      {"output", required_argument, NULL, 'f'}, {"max-repetitions", required_argument, NULL, 'r'},
      {"help", no_argument, NULL, 'h'},         {NULL, 0, NULL, 0}};
  int ch;
  o->agent = "127.0.0.1:161";
  o->community = "public";
  o->max_repetitions = 25;
  while ((ch = getopt_long(argc, argv, "", longopts, NULL)) != -1) {
    switch (ch) {
      case 'a':
        o->agent = optarg;
        break;
      case 'c':
        o->community = optarg;
        break;
      case 'o':
        if (o->nsubtrees == COLL_MAX_SUBTREES) {
          fprintf(stderr, "snmp_collector: at most %d subtrees\n", COLL_MAX_SUBTREES);
          return -1;
        }
        o->subtrees[o->nsubtrees++] = optarg;
        break;
      case 'v':
        o->csv = 1;
        break;
      case 'f':
        o->output = optarg;
        break;
      case 'r':
        o->max_repetitions = strtol(optarg, NULL, 10);
        if (o->max_repetitions < 1 || o->max_repetitions > 1000) {
          fprintf(stderr, "snmp_collector: --max-repetitions takes 1 to 1000\n");
          return -1;
        }
        break;
      case 'h':
        coll_usage(stdout);
        exit(COLL_OK);
      default:
        return -1;
    }
  }
  if (optind != argc) {
    fprintf(stderr, "snmp_collector: unexpected argument %s\n", argv[optind]);
    return -1;
  }
  if (o->nsubtrees == 0) {
    unsigned i;
    for (i = 0; i < sizeof coll_default_subtrees / sizeof coll_default_subtrees[0]; ++i) {
      o->subtrees[o->nsubtrees++] = coll_default_subtrees[i];
    }
  }
  return 0;
}

/* The request as a configuration string: location "local", provider "snmp", the subtrees as
 * the object list "walk", every instance (one wildcard instance without OID). */
static int coll_print_request(const coll_options_t *o) {
  zel_util_config_t *cfg = zel_util_config_create("local", "snmp");
  const char *s = NULL;
  unsigned i;
  int rc = 0;
  if (cfg == NULL) {
    return -1;
  }
  for (i = 0; i < o->nsubtrees && rc == 0; ++i) {
    rc = zel_util_snmp_add_object(cfg, "walk", o->subtrees[i]);
  }
  if (rc == 0) {
    rc = zel_util_snmp_add_instance(cfg, "all", ZEL_SNMP_INSTANCE_WILDCARD, NULL, NULL, 0);
  }
  if (rc == 0) {
    s = zel_util_config_string_get(cfg);
  }
  if (s != NULL) {
    fprintf(stderr, "request: %s\n", s);
  }
  zel_util_config_destroy(cfg);
  return s != NULL ? 0 : -1;
}

static void coll_free_all(coll_writer_t *w, coll_collector_t *c) {
  size_t i;
  for (i = 0; i < w->rows.n; ++i) {
    zel_row_data_t_cleanup(w->rows.v[i]);
  }
  free(w->rows.v);
  free(w->buf);
  free(w->name);
  for (i = 0; i < c->responses.n; ++i) {
    snmp_free_pdu(c->responses.v[i]);
  }
  free(c->responses.v);
  free(c->vars.v);
}

int main(int argc, char **argv) {
  coll_options_t opt;
  coll_writer_t w;
  coll_collector_t c;
  coll_check_t chk;
  netsnmp_session sess;
  pthread_t writer, collector;
  uint64_t start;
  double elapsed;
  int status;

  memset(&opt, 0, sizeof opt);
  memset(&w, 0, sizeof w);
  memset(&c, 0, sizeof c);
  if (coll_parse(argc, argv, &opt) != 0) {
    coll_usage(stderr);
    return COLL_USAGE;
  }
  /* The host registers the configuration module and keeps its error flag on: errors then
   * also reach the event history. Its trace points echo to standard output in any case. */
  zel_cfg_string_dt_init_once();
  zel_cfg_string_dbg_set(ZEL_TRACE_MASK_ERROR);
  if (coll_print_request(&opt) != 0) {
    fprintf(stderr, "snmp_collector: the request could not be described (see the trace)\n");
    return COLL_USAGE;
  }

  /* net-snmp without configuration files or MIBs: its rendering then depends on the values
   * alone, as the library's does. */
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
  setenv("MIBS", "", 1);
  init_snmp("snmp_collector");
  netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_OID_OUTPUT_FORMAT,
                     NETSNMP_OID_OUTPUT_NUMERIC);
  snmp_sess_init(&sess);
  sess.peername = (char *)opt.agent;
  sess.version = SNMP_VERSION_2c;
  sess.community = (u_char *)opt.community;
  sess.community_len = strlen(opt.community);
  sess.timeout = 1000000;
  sess.retries = 1;
  c.opt = &opt;
  c.session = snmp_sess_open(&sess);
  if (c.session == NULL) {
    fprintf(stderr, "snmp_collector: cannot open a session to %s\n", opt.agent);
    snmp_shutdown("snmp_collector");
    return COLL_AGENT;
  }
  if (zel_id_mgr_init(&c.ids) != ZEL_ID_MGR_OK) {
    snmp_sess_close(c.session);
    snmp_shutdown("snmp_collector");
    return COLL_FAILED;
  }

  w.out = stdout;
  w.csv = opt.csv;
  if (opt.output != NULL && (w.out = fopen(opt.output, "w")) == NULL) {
    fprintf(stderr, "snmp_collector: cannot write %s: %s\n", opt.output, strerror(errno));
    zel_id_mgr_cleanup(&c.ids);
    snmp_sess_close(c.session);
    snmp_shutdown("snmp_collector");
    return COLL_USAGE;
  }
  if (w.csv) {
    fprintf(w.out, "oid,type,value\n");
  }
  pthread_mutex_init(&w.lock, NULL);
  pthread_cond_init(&w.cond, NULL);

  /* The writer first, so that its server channel is open before the collector sends. */
  status = COLL_FAILED;
  if (pthread_create(&writer, NULL, coll_writer_main, &w) == 0) {
    pthread_mutex_lock(&w.lock);
    while (w.ready == 0) {
      pthread_cond_wait(&w.cond, &w.lock);
    }
    pthread_mutex_unlock(&w.lock);
    start = coll_now_ns();
    if (w.ready > 0 && pthread_create(&collector, NULL, coll_collector_main, &c) == 0) {
      pthread_join(collector, NULL);
      status = c.status;
    } else if (w.ready > 0) {
      /* No collector: nothing will come. */
      __atomic_store_n(&w.done, 1, __ATOMIC_RELAXED);
      kro_dm_wake(w.dm);
    }
    pthread_join(writer, NULL);
    elapsed = (double)(w.end_ns > start ? w.end_ns - start : 0) / 1e9;
    if (w.failed && status == COLL_OK) {
      status = COLL_FAILED;
    }
  }
  if (opt.output != NULL) {
    fclose(w.out);
  }

  if (status == COLL_AGENT) {
    fprintf(stderr, "snmp_collector: %s\n", c.error);
  } else if (status != COLL_OK) {
    fprintf(stderr, "snmp_collector: collection failed%s%s\n", c.error[0] ? ": " : "", c.error);
  } else if (coll_cross_check(&w, &c, &chk) != 0) {
    status = COLL_FAILED;
  } else {
    fprintf(stderr, "cross-check against net-snmp: %zu values compared, %zu mismatches",
            chk.compared, chk.mismatches);
    if (chk.skipped > 0) {
      fprintf(stderr, " (%zu values of other types not compared)", chk.skipped);
    }
    fputc('\n', stderr);
    fprintf(stderr,
            "summary: %zu values, %zu rows, %.1f ms, %.0f rows/s; rendering per value "
            "(%zu addresses, OIDs, strings; median of 5): libzel_utils %.0f ns, net-snmp %.0f ns "
            "(%.2fx)\n",
            w.values, c.rows, elapsed * 1e3, elapsed > 0 ? (double)c.rows / elapsed : 0.0,
            chk.library_values, chk.library_ns, chk.netsnmp_ns,
            chk.netsnmp_ns > 0 ? chk.library_ns / chk.netsnmp_ns : 0.0);
    status = chk.mismatches == 0 && chk.compared > 0 ? COLL_OK : COLL_MISMATCH;
  }
  coll_free_all(&w, &c);
  pthread_mutex_destroy(&w.lock);
  pthread_cond_destroy(&w.cond);
  zel_id_mgr_cleanup(&c.ids);
  snmp_sess_close(c.session);
  snmp_shutdown("snmp_collector");
  return status;
}
