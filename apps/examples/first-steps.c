/* SPDX-License-Identifier: Apache-2.0 */
/* An application in C: connects as "doorbell", reports itself as ready, is reloaded on order, prints what it is told
 * and ends with SIGINT or SIGTERM. */
#define _POSIX_C_SOURCE 200809L
#include <OrvStackSdk/C.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

/* Callbacks and signals run beside main's loop: they only write into a pipe, and the loop does the work. */
static int reloads[2];
static int ends[2];

static void tell_loop(const int pipe_ends[2]) {
    if (write(pipe_ends[1], "", 1) < 0) {
        /* full: the loop has been told often enough */
    }
}

static void on_signal(int number) {
    (void)number;
    tell_loop(ends);
}

static void on_app_action(void* user, int action) {
    (void)user;
    if (action == ORV_APP_ACTION_RELOAD)
        tell_loop(reloads);
}

static void on_device_probe(void* user, const char* guid, size_t length) {
    (void)user;
    printf("panel %.*s\n", (int)length, guid);
}

static void on_device_cellular_status(void* user, int item, const char* value, size_t length) {
    (void)user;
    if (item == ORV_CELLULAR_STATUS_STRENGTH)
        printf("signal %.*s\n", (int)length, value);
}

static void reload(struct orv_client* client) {
    orv_client_app_status(client, ORV_APP_STATUS_BOOTING);
    puts("reads its settings again");
    orv_client_app_status(client, ORV_APP_STATUS_READY);
}

/* Returns the result of the first call that fails. */
static int run(struct orv_client* client) {
    int running = 1;
    int result = orv_client_init(client, "doorbell");
    if (result == ORV_OK)
        result = orv_client_start(client);
    if (result == ORV_OK)
        result = orv_client_app_status(client, ORV_APP_STATUS_READY);
    while (result == ORV_OK && running) {
        struct pollfd told[] = {{.fd = ends[0], .events = POLLIN}, {.fd = reloads[0], .events = POLLIN}};
        char byte;
        if (poll(told, 2, 200) > 0) {
            running = told[0].revents == 0;
            if (running && read(reloads[0], &byte, 1) == 1)
                reload(client);
        }
        result = orv_client_tick(client, 200);
        if (orv_client_cloud_reconnect_needed(client) == 1)
            puts("connects to the cloud again");
    }
    orv_client_deinit(client);
    return result;
}

int main(void) {
    const struct orv_callbacks callbacks = {
        .on_app_action = on_app_action,
        .on_device_probe = on_device_probe,
        .on_device_cellular_status = on_device_cellular_status,
    };
    const struct sigaction ending = {.sa_handler = on_signal};
    struct orv_client* client;
    int result;

    setvbuf(stdout, NULL, _IOLBF, 0);
    if (pipe(reloads) != 0 || pipe(ends) != 0 || fcntl(reloads[1], F_SETFL, O_NONBLOCK) != 0 ||
        fcntl(ends[1], F_SETFL, O_NONBLOCK) != 0)
        return 1;
    sigaction(SIGINT, &ending, NULL);
    sigaction(SIGTERM, &ending, NULL);

    result = orv_client_create(&callbacks, NULL, &client);
    if (result == ORV_OK)
        result = run(client);
    orv_client_destroy(client);
    if (result != ORV_OK)
        fprintf(stderr, "first-steps: %s\n", result == ORV_NO_BROKER ? "no broker" : "an error of the library");
    return result == ORV_OK ? 0 : 1;
}
