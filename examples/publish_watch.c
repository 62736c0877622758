/* Publishes an instance of a service and watches all instances of the same name, in one poll loop,
 * until standard input ends.
 *
 *   publish_watch NAME INSTANCE PORT
 *   cc -std=c11 publish_watch.c $(pkg-config --cflags --libs ds_client) -o publish_watch
 *
 * The daemon may be started later, and may be restarted: the library connects and publishes again
 * by itself. DS_SOCKET names another socket than the system's. */
#include <ds_client.h>

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static void on_state(void *ctx, ds_client_handle_t *handle, ds_client_state_t state, int error,
                     const char *reason) {
    (void)ctx, (void)handle;
    if (state == DS_CLIENT_CONNECTED) printf("connected\n");
    if (state == DS_CLIENT_DISCONNECTED)
        printf("disconnected: %s (%s)\n", ds_client_strerror(error), reason);
}

static void on_publication(void *ctx, ds_publication_t *publication,
                           const ds_publication_info_t *info) {
    (void)ctx, (void)publication;
    switch (info->state) {
    case DS_PUBLICATION_LIVE:
        printf("published, generation %u\n", info->generation);
        break;
    case DS_PUBLICATION_REFUSED:
        printf("refused: %s\n", info->text);
        break;
    case DS_PUBLICATION_WITHDRAWN:
        printf("withdrawn by process %u of user %u\n", info->by_pid, info->by_uid);
        break;
    case DS_PUBLICATION_PENDING:
    case DS_PUBLICATION_WITHDRAWING:
        break;
    }
}

static void on_snapshot(void *ctx, ds_registration_t *registration,
                        const ds_client_snapshot_t *snapshot) {
    (void)ctx, (void)registration;
    printf("%s has %zu instances:", snapshot->name, snapshot->instance_count);
    for (size_t i = 0; i < snapshot->instance_count; i++) {
        const ds_client_instance_t *instance = snapshot->instances[i];
        const uint32_t address = instance->ipv4_address;
        if (instance->path != NULL)
            printf(" %s at %s", instance->instance, instance->path);
        else
            printf(" %s at %u.%u.%u.%u:%u", instance->instance, address >> 24, address >> 16 & 0xff,
                   address >> 8 & 0xff, address & 0xff, instance->ipv4_port);
    }
    printf("\n");
}

/* Until standard input ends; the library is called when its descriptor is readable. */
static int serve(ds_client_handle_t *handle) {
    struct pollfd items[] = {{ds_client_fd(handle), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    for (;;) {
        if (poll(items, 2, -1) < 0) return 1;
        if (items[0].revents != 0 && ds_client_dispatch(handle) != DS_CLIENT_OK) return 1;
        char bytes[256];
        if (items[1].revents != 0 && read(STDIN_FILENO, bytes, sizeof bytes) <= 0) return 0;
    }
}

int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: publish_watch NAME INSTANCE PORT\n");
        return 2;
    }
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);

    ds_client_options_t options = {0};
    options.size = sizeof options;
    options.socket = getenv("DS_SOCKET");
    options.display_name = "publish_watch";
    options.state_fn = on_state;
    ds_client_handle_t *handle = NULL;
    int error = ds_client_create(&options, &handle);

    ds_client_service_t service = {0};
    service.size = sizeof service;
    service.name = argv[1];
    service.instance = argv[2];
    service.scope = DS_CLIENT_SCOPE_LOCAL;
    service.ipv4_address = 0x7f000001; /* 127.0.0.1 */
    service.ipv4_port = (uint32_t)strtoul(argv[3], NULL, 10);
    if (error == DS_CLIENT_OK)
        error = ds_client_publish(handle, &service, on_publication, NULL, NULL);
    if (error == DS_CLIENT_OK)
        error = ds_client_watch(handle, service.name, on_snapshot, NULL, NULL, NULL);
    if (error != DS_CLIENT_OK) fprintf(stderr, "publish_watch: %s\n", ds_client_strerror(error));

    const int code = error == DS_CLIENT_OK ? serve(handle) : 1;
    ds_client_destroy(handle); /* withdraws what was published */
    return code;
}
