/* SPDX-License-Identifier: Apache-2.0 */
#include "Door.h"

#include <stdlib.h>
#include <string.h>

static void copy(char* to, size_t room, const char* from, size_t length) {
    if (length >= room)
        length = room - 1;
    memcpy(to, from, length);
    to[length] = '\0';
}

static void on_app_action(void* user, int action) {
    struct door* door = user;
    door->reload_wanted = action == ORV_APP_ACTION_RELOAD;
}

static void on_device_probe(void* user, const char* guid, size_t length) {
    struct door* door = user;
    copy(door->panel, sizeof door->panel, guid, length);
}

static void on_device_online_status(void* user, int online) {
    struct door* door = user;
    door->panel_online = online;
}

static void on_device_cellular_status(void* user, int item, const char* value, size_t length) {
    struct door* door = user;
    (void)length;
    if (item == ORV_CELLULAR_STATUS_STRENGTH)
        door->strength = atoi(value);
}

static void on_feature_shutdown_readiness(void* user, const char* app, size_t length, int ready) {
    struct door* door = user;
    if (ready)
        copy(door->ready_app, sizeof door->ready_app, app, length);
}

static int door_open(struct door* door) {
    const struct orv_callbacks callbacks = {
        .on_app_action = on_app_action,
        .on_device_probe = on_device_probe,
        .on_device_online_status = on_device_online_status,
        .on_device_cellular_status = on_device_cellular_status,
        .on_feature_shutdown_readiness = on_feature_shutdown_readiness,
    };
    int result = orv_client_create(&callbacks, door, &door->client);
    if (result == ORV_OK)
        result = orv_client_init(door->client, "door");
    if (result == ORV_OK)
        result = orv_client_start(door->client);
    if (result == ORV_OK)
        result = orv_client_app_status(door->client, ORV_APP_STATUS_READY);
    return result;
}

static int door_step(struct door* door) {
    int result = orv_client_tick(door->client, 100);
    if (result == ORV_OK && door->reload_wanted) {
        door->reload_wanted = 0;
        result = orv_client_app_status(door->client, ORV_APP_STATUS_BOOTING);
    }
    if (result != ORV_OK)
        return result;
    result = orv_client_cloud_reconnect_needed(door->client);
    if (result > 0)
        ++door->reconnects;
    return result < 0 ? result : ORV_OK;
}

static void door_close(struct door* door) {
    orv_client_deinit(door->client);
    orv_client_destroy(door->client);
}

const struct door_functions DOOR = {door_open, door_step, door_close};
