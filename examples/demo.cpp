// vobrel demo: what a process linking the library sees, end to end.
#include <vobrel/vobrel.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

int main()
{
    // Keep the demo's log beside the build unless the caller chose a place.
    std::string store = "/tmp/vobrel-demo.log";
    setenv("VOBREL_LOG_STORE", store.c_str(), 0);
    strcpy(vob_proc_name, "demo");
    std::string file = std::string(getenv("VOBREL_LOG_STORE")) + "." + vob_proc_name;
    unlink(file.c_str());

    printf("== vobrel %s\n", vobrel_get_qmt_version());

    printf("\n-- A catalogue report (also sent to the system log):\n");
    xos_errmsg(__func__, __LINE__, &msg_SYS_QCOUNT, "dequeue", 0x1000u, -1);

    printf("\n-- Log records written with vobrel_write_to_log:\n");
    vobrel_write_to_log(__func__, __LINE__, "demo started, pid %d\n", static_cast<int>(getpid()));
    vobrel_write_to_log(nullptr, 0, "a record without a function name\n");

    printf("\n-- Return codes decode to text: %d -> \"%s\", %d -> \"%s\"\n", VOBREL_NO_MEMORY,
           vobrel_decode_rc(VOBREL_NO_MEMORY), VOBREL_TIMEOUT, vobrel_decode_rc(VOBREL_TIMEOUT));

    printf("\n-- The log file %s now holds:\n", file.c_str());
    FILE *f = fopen(file.c_str(), "r");
    if (!f) {
        printf("(no log file)\n");
        return 1;
    }
    int c;
    while ((c = fgetc(f)) != EOF)
        putchar(c);
    fclose(f);
    printf("\n");
    return 0;
}
