/* SPDX-License-Identifier: Apache-2.0 */
/* A door as an application in C, for the tests. */
#ifndef DOOR_H
#define DOOR_H

#include "OrvStackSdk/C.h"

#ifdef __cplusplus
extern "C" {
#endif

struct door {
    struct orv_client* client;
    int reload_wanted;
    int strength;
    int panel_online;
    char panel[16];
    char ready_app[16];
    int reconnects;
};

/* Its functions, so that it can be compiled twice into one program. */
struct door_functions {
    int (*open)(struct door* door);
    int (*step)(struct door* door);
    void (*close)(struct door* door);
};

extern const struct door_functions doorInC99;
extern const struct door_functions doorInC11;

#ifdef __cplusplus
}
#endif

#endif
