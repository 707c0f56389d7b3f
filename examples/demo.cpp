// vobrel demo: one process using the library for its real job, end to end.
//
// It starts the runtime the documented way, hands readings from a producer
// thread to a consumer over a watched queue, trades pointers for identifiers,
// shares texts through the string database, misuses a queue on purpose, fills
// its log file until it wraps, and finally prints that log in order with
// vobrel-log.
#include <vobrel/vobrel.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef VOBREL_LOG_TOOL
#define VOBREL_LOG_TOOL "vobrel-log"
#endif

// The demo brings its own system-log function: a process may replace any of
// the platform functions, and this one shows the catalogue's lines here
// instead of sending them to syslog. The others come from libvobrel_platform.
extern "C" void vobrel_platform_syslog(int severity, const char *line)
{
    printf("   system log (severity %d): %s\n", severity, line);
}

namespace {

constexpr int kReadings = 12;

struct Reading {
    int sequence;
    int celsius;
};

struct Producer {
    watched_queue *queue;
    watched_boolean *done;
    Reading readings[kReadings];
};

void *produce(void *arg)
{
    auto *p = static_cast<Producer *>(arg);
    for (int i = 0; i < kReadings; ++i) {
        p->readings[i].sequence = i;
        p->readings[i].celsius = 20 + (i * 7) % 11;
        process_data_enqueue(p->queue, &p->readings[i]);
        if (i % 4 == 3)
            usleep(2000); // let the consumer catch up now and then
    }
    process_set_boolean(p->done, TRUE);
    return nullptr;
}

const char *id_result(id_mgr_ret r)
{
    switch (r) {
    case ID_MGR_RET_OK:
        return "OK";
    case ID_MGR_RET_RETIRED:
        return "RETIRED";
    case ID_MGR_RET_ERROR:
        return "ERROR";
    default:
        return "other";
    }
}

// What a component's object holds: the handle its text was stored under.
struct Port {
    const char *label;
    sdb_handle name;
};

sdb_handle port_handle(void *obj)
{
    return obj ? static_cast<Port *>(obj)->name : 0;
}

long file_size(const std::string &path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

// The first header field: where the newest record ends.
long header_position(const std::string &path)
{
    char head[9] = {0};
    FILE *f = fopen(path.c_str(), "r");
    if (!f)
        return -1;
    size_t n = fread(head, 1, 8, f);
    fclose(f);
    return n == 8 ? atol(head) : -1;
}

void heading(const char *text)
{
    printf("\n%s\n", text);
}

} // namespace

int main()
{
    // A private log store with a small limit, so the log wraps during the demo.
    char dir[] = "/tmp/vobrel-demo-XXXXXX";
    if (!mkdtemp(dir)) {
        perror("mkdtemp");
        return 1;
    }
    std::string store = std::string(dir) + "/device.log";
    setenv("VOBREL_LOG_STORE", store.c_str(), 1);
    setenv("VOBREL_LOG_SIZE", "2048", 1);
    strcpy(vob_proc_name, "demo");
    std::string log_file = store + "." + vob_proc_name;

    printf("vobrel %s demo\n", vobrel_get_qmt_version());
    printf("log file: %s (limit 2048 bytes)\n", log_file.c_str());

    heading("1. Start-up");
    vobrel_debug_get_startup_common();
    vobrel_rc rc = vobrel_os_init();
    printf("   vobrel_os_init: %s; clock ticks %ld per second\n", vobrel_decode_rc(rc), zel_timer_ticks_per_second);

    heading("2. A named list");
    list_header *sensors = zel_list_create(nullptr, 0, "sensors", LIST_FLAGS_AUTOMATIC);
    const char *names[] = {"inlet", "cpu", "exhaust"};
    for (const char *n : names)
        list_enqueue(sensors, nullptr, const_cast<char *>(n));
    printf("   list \"%s\" (id %u) holds %u sensors:", sensors->name, sensors->ID, sensors->count);
    for (list_element *e = sensors->head; e; e = e->next)
        printf(" %s", static_cast<const char *>(e->data));
    printf("\n");

    heading("3. A producer thread hands readings to this thread over a watched queue");
    Producer prod{};
    prod.queue = create_watched_queue("readings", 0, 0);
    prod.done = create_watched_boolean("producer done", 0);
    int tid = xos_process_create(reinterpret_cast<void *>(produce), "producer", 0, 0, 1, &prod);
    int received = 0, in_order = 1, last = -1;
    while (received < kReadings) {
        process_wait_on_queue(prod.queue);
        while (void *item = process_data_dequeue(prod.queue)) {
            auto *r = static_cast<Reading *>(item);
            in_order &= r->sequence == last + 1;
            last = r->sequence;
            ++received;
            vobrel_write_to_log(__func__, __LINE__, "reading %02d: %d C\n", r->sequence, r->celsius);
        }
    }
    boolean finished = process_wait_on_boolean(prod.done, 5000);
    printf("   producer thread %s; received %d of %d readings, %s; producer finished: %s\n",
           tid == -1 ? "could not start" : "started", received, kReadings, in_order ? "in order" : "OUT OF ORDER",
           finished ? "yes" : "no");

    heading("4. Identifiers standing for pointers");
    // One slot of two entries, so the deleted identifier's entry is reused at once.
    id_table_key_t table = zel_id_create_new_table(1, 2, const_cast<char *>("demo objects"));
    idmgr_id_t id_inlet = zel_id_get(const_cast<char *>("inlet"), table);
    idmgr_id_t id_cpu = zel_id_get(const_cast<char *>("cpu"), table);
    id_mgr_ret ret;
    printf("   table %u: \"inlet\" is 0x%08X, \"cpu\" is 0x%08X\n", table, id_inlet, id_cpu);
    printf("   0x%08X -> \"%s\"\n", id_cpu, static_cast<const char *>(zel_id_to_ptr(id_cpu, &ret, table)));
    zel_id_delete(id_inlet, table);
    idmgr_id_t id_exhaust = zel_id_get(const_cast<char *>("exhaust"), table);
    void *stale = zel_id_to_ptr(id_inlet, &ret, table);
    printf("   after deleting 0x%08X its entry now serves \"exhaust\" as 0x%08X;\n", id_inlet, id_exhaust);
    printf("   the old identifier gives %s and result %s\n", stale ? "a pointer" : "no pointer", id_result(ret));

    heading("5. Shared texts in the string database");
    ushort ports_owner = 0xFFFF;
    sdb_register_component(const_cast<char *>("ports"), port_handle, FALSE, &ports_owner);
    Port ports[] = {{"port 1", 0}, {"port 2", 0}, {"port 3", 0}};
    for (Port &p : ports)
        sdb_add_string("uplink", 6, SDB_ASCII_STRING_CASE_SENSITIVE, &p.name, ports_owner, &p);
    bool same = sdb_string_addr_ptr(ports[0].name) == sdb_string_addr_ptr(ports[1].name) &&
                sdb_string_addr_ptr(ports[1].name) == sdb_string_addr_ptr(ports[2].name);
    printf("   3 ports named \"uplink\": %u text stored, %s\n", sdb_number_strings,
           same ? "one copy of its bytes shared by all three" : "NOT SHARED");
    void *holder = nullptr;
    int holders = 0;
    while (sdb_find_string("uplink", 6, SDB_ASCII_STRING_CASE_SENSITIVE, holders, ports_owner, &holder))
        ++holders;
    printf("   the component asks who holds \"uplink\": %d ports (newest first: %s)\n", holders,
           sdb_find_string("uplink", 6, SDB_ASCII_STRING_CASE_SENSITIVE, 0, ports_owner, &holder)
               ? static_cast<Port *>(holder)->label
               : "-");

    heading("6. A misuse of a queue, caught and reported");
    queuetype q{};
    zel_queue_init(&q, 0);
    Reading r{};
    zel_enqueue(&q, &r);
    boolean again = zel_enqueue(&q, &r); // the element is already on the queue
    printf("   second enqueue of the same element returned %s; the queue still holds %d element\n",
           again ? "TRUE" : "FALSE", zel_queryqueuedepth(&q));
    zel_dequeue(&q);

    heading("7. The log file wraps at its limit");
    // Heartbeats until writing has wrapped back to the top, then a few more.
    int ticks = 0, after_wrap = -1;
    while (after_wrap < 4 && ticks < 1000) {
        vobrel_write_to_log(nullptr, 0, "heartbeat %03d: all sensors nominal\n", ticks++);
        if (after_wrap >= 0 || header_position(log_file) < file_size(log_file))
            ++after_wrap;
    }
    printf("   wrote %d heartbeat records; the file is %ld bytes, and its header says the newest\n"
           "   record ends at byte %ld: older records follow it, so cat would show them out of order.\n",
           ticks, file_size(log_file), header_position(log_file));

    heading("8. vobrel-log prints the log oldest record first:");
    fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        execl(VOBREL_LOG_TOOL, "vobrel-log", log_file.c_str(), static_cast<char *>(nullptr));
        execlp("vobrel-log", "vobrel-log", log_file.c_str(), static_cast<char *>(nullptr));
        perror("vobrel-log");
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);

    while (list_dequeue(sensors)) {
    }
    zel_list_destroy(sensors);
    delete_watched_queue(&prod.queue);
    delete_watched_boolean(&prod.done);
    vobrel_os_shutdown();
    printf("\n(log kept in %s)\n", dir);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
