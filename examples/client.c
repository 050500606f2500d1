/* A client of the table agent, to copy: it stores an interface, a second one from a line of text,
 * and reads the first back. It uses what is installed and nothing else:
 *
 *   cc -std=c11 client.c $(pkg-config --cflags --libs zan) -o client
 *   ./client /tmp/zan.sock
 *
 * With CMake: find_package(zan), and link zan::zan_client.
 */
#include "l3intf.h"
#include "zan_client.h"
#include "zan_rcodes.h"

#include <stdio.h>
#include <stdlib.h>

/* By the accessors of the table; the caller frees it with free, whatever the batch takes. */
static zan_table_base_st *make_interface(uint32_t intf, uint16_t mtu)
{
    const kor_l3intf_key_t key = {.intf = intf};
    zan_table_base_st *obj = kor_srv_l3intf_ctor(0); /* no members: the table has no list */
    if (!obj)
        return NULL;
    kor_srv_l3intf_set_key(obj, &key);
    kor_srv_l3intf_set_ipv4_mtu(obj, mtu);
    return obj;
}

/* The batch copies the object. */
static int append(zan_batch_t *batch, zan_table_base_st *obj)
{
    const int rc = obj ? zan_batch_append(batch, obj, ZAN_TABLE_CREATE) : -1;
    free(obj);
    return rc;
}

/* The slots stand in the batch, and are gone with it. */
static int read_slots(const zan_batch_t *batch)
{
    int failures = 0;
    for (uint32_t i = 0; i < zan_batch_slots(batch); i++) {
        const zan_rcode rc = zan_batch_rc(batch, i);
        failures += rc != EOK;
        printf("object %u: 0x%08x %s\n", i, rc, rcd_strerror(rc));
    }
    return failures;
}

static int create(zan_client_t *client)
{
    char why[256];
    zan_batch_t *batch = zan_batch_new(ZAN_BATCH_CONTINUE_ON_ERROR, 0);
    if (!batch)
        return -1;
    zan_table_base_st *line =
        zan_obj_parse(zan_table_def_find("l3intf"), "intf=101 ipv4_mtu=9000", why, sizeof why);
    if (!line)
        fprintf(stderr, "%s\n", why);
    int failures = -1;
    if (append(batch, make_interface(100, 1500)) || append(batch, line))
        fprintf(stderr, "no memory for the batch, or it is full\n");
    else if (zan_client_run(client, batch))
        fprintf(stderr, "%s\n", zan_client_error(client)); /* nothing of it was run */
    else
        failures = read_slots(batch);
    zan_batch_free(batch);
    return failures;
}

static int read_back(zan_client_t *client)
{
    zan_rcode rc = EOK;
    zan_table_base_st *key = make_interface(100, 0), *found = NULL;
    const int answered = key ? zan_client_read(client, ZAN_TABLE_GET, key, &rc, &found) : -1;
    free(key);
    if (answered == 0 && rc == EOK)
        printf("interface %u has an IPv4 MTU of %u\n", kor_srv_l3intf_get_key(found)->intf,
               kor_srv_l3intf_get_ipv4_mtu(found));
    free(found); /* ours */
    return answered == 0 && rc == EOK ? 0 : -1;
}

int main(int argc, char **argv)
{
    char why[256];
    zan_client_t *client =
        zan_client_connect(argc > 1 ? argv[1] : ZAN_DEFAULT_SOCKET, "example", why, sizeof why);
    if (!client) {
        fprintf(stderr, "%s\n", why);
        return 2;
    }
    const int failed = create(client) || read_back(client);
    zan_client_close(client);
    return failed ? 1 : 0;
}
