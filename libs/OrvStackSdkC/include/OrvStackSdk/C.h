/* SPDX-License-Identifier: Apache-2.0 */
#ifndef ORV_STACK_SDK_C_H
#define ORV_STACK_SDK_C_H

#include "OrvStackSdk/Export.h"

#include <stddef.h>

/// @file
/// The client for programs in C (C99 or later) and for every language that calls C. Each function is one call of
/// OrvStackSdk::IOrvStackClient and does what is said there; here stands what is different.
///
/// Order: orv_client_create, orv_client_init, orv_client_start, then orv_client_tick periodically and any requests,
/// then orv_client_deinit and orv_client_destroy.
///
/// Errors: every function returns a value of enum orv_result. No C++ exception leaves a function. One that an
/// application's callback throws is logged and goes no further.
///
/// Texts: UTF-8, and a NUL ends them. They are copied: the caller may release its own when the call has returned. A
/// text with a NUL inside cannot be sent from here.
///
/// Values: those of the enumerations below are the C++ ones. Any other number is ORV_INVALID_ARGUMENT, and the call
/// does nothing.
///
/// Threads: make all calls on one thread; all but orv_client_init may also be made inside a callback.
/// orv_client_event, orv_client_tick and orv_client_cloud_reconnect_needed are safe on any thread.

#ifdef __cplusplus
extern "C" {
#endif

/// What a function answers. The numbers never change.
enum orv_result {
    ORV_OK = 0,                ///< done, or handed to the broker's connection
    ORV_INVALID_ARGUMENT = -1, ///< a NULL that is not allowed, or a value that is no enumerator; nothing was done
    ORV_NO_MEMORY = -2,        ///< memory has run out; a part of the call may have been done
    ORV_NO_BROKER = -3,        ///< the broker was not reached, or it has refused; the call may be repeated
    ORV_FAILED = -4            ///< anything else, which no known case leads to
};

/// The actions that an application can be asked to do.
enum orv_app_action {
    ORV_APP_ACTION_ENABLED = 0,
    ORV_APP_ACTION_DISABLED = 1,
    ORV_APP_ACTION_RELOAD = 2,
    ORV_APP_ACTION_UNSUPPORTED = 3
};

/// The states of an application.
enum orv_app_status {
    ORV_APP_STATUS_SUPPORTED = 0,
    ORV_APP_STATUS_AVAILABLE = 1,
    ORV_APP_STATUS_BOOTING = 2,
    ORV_APP_STATUS_READY = 3,
    ORV_APP_STATUS_ERROR = 4,
    ORV_APP_STATUS_NOERROR = 5,
    ORV_APP_STATUS_UNSUPPORTED = 6
};

/// The kind of a modem or SIM item.
enum orv_cellular_status {
    ORV_CELLULAR_STATUS_IMEI = 0,
    ORV_CELLULAR_STATUS_ICCID = 1,
    ORV_CELLULAR_STATUS_TECHNOLOGY = 2,
    ORV_CELLULAR_STATUS_PROVIDER = 3,
    ORV_CELLULAR_STATUS_STRENGTH = 4
};

/// Connectivity events. Note the order: for the cloud "connected" comes first, for the interfaces "disconnected".
enum orv_event {
    ORV_EVENT_CLOUD_CONNECTED = 0,
    ORV_EVENT_CLOUD_DISCONNECTED = 1,
    ORV_EVENT_PANEL_CLOUD_ENABLED = 2,
    ORV_EVENT_PANEL_CLOUD_DISABLED = 3,
    ORV_EVENT_ETHERNET_DISCONNECTED = 4,
    ORV_EVENT_ETHERNET_CONNECTED = 5,
    ORV_EVENT_ETHERNET_IP_GAINED = 6,
    ORV_EVENT_ETHERNET_IP_LOST = 7,
    ORV_EVENT_CELLULAR_DISCONNECTED = 8,
    ORV_EVENT_CELLULAR_CONNECTED = 9,
    ORV_EVENT_CELLULAR_IP_GAINED = 10,
    ORV_EVENT_CELLULAR_IP_LOST = 11,
    ORV_EVENT_FAILURE = 12
};

/// The callbacks of a client; any of them may be NULL.
///
/// Threads: they run on the broker connection's delivery thread, one at a time, and may run while the application is
/// inside a function of this client. A slow callback delays the messages behind it.
///
/// Every function of the client but orv_client_init is allowed inside a callback, orv_client_destroy included.
///
/// Texts belong to the library and are valid until the callback returns. `length` is the number of bytes; a NUL follows
/// them. A text of a message may hold any bytes, a NUL too.
///
/// The answer to orv_client_init is its result. There is no callback for the status of other applications, because
/// IOrvStackClientHandler::OnAppStatusIndication is never called.
///
/// `user` is what was given to orv_client_create.
struct orv_callbacks {
    /// An action for this application.
    /// @param action one of enum orv_app_action
    void (*on_app_action)(void* user, int action);

    /// The panel has reported its identifier.
    void (*on_device_probe)(void* user, const char* guid, size_t length);

    /// The panel's connection: 1 for the payload "UP", 0 for any other.
    void (*on_device_online_status)(void* user, int online);

    /// One item about the modem or its SIM.
    /// @param item one of enum orv_cellular_status
    void (*on_device_cellular_status)(void* user, int item, const char* value, size_t length);

    /// Whether an application is ready for the shutdown that was asked for: 1 or 0.
    void (*on_feature_shutdown_readiness)(void* user, const char* app, size_t length, int ready);
};

/// A client. It is used through pointers only.
struct orv_client;

/// Makes a client; see OrvStackSdk::CreateClient. Waits at most 3 s for the broker.
/// @param callbacks are copied; NULL for none
/// @param user      handed to every callback; it must live until orv_client_destroy has returned
/// @param client    where the client is put, or NULL after an error. The caller owns it and ends it with
///                  orv_client_destroy.
/// @return ORV_NO_BROKER when the broker cannot be reached
ORVSTACKSDK_EXPORT int orv_client_create(const struct orv_callbacks* callbacks, void* user, struct orv_client** client);

/// Ends a client, without a good-bye to the broker unless orv_client_deinit has been called. NULL is allowed.
///
/// No callback begins any more. The function waits for one that is running, so that `user` may be released afterwards;
/// hold no lock that a callback takes. Inside a callback it does not wait, and that callback is the last one.
///
/// No other thread may be inside a function of this client, a running callback excepted, and none may call one later.
ORVSTACKSDK_EXPORT void orv_client_destroy(struct orv_client* client);

/// Connects to the broker under the application's name; waits at most 3 s. Callbacks may come before it returns.
/// @return ORV_NO_BROKER when the connection was not accepted, and always for a name that cannot be part of a topic
///         (with "+" or "#", or no UTF-8)
ORVSTACKSDK_EXPORT int orv_client_init(struct orv_client* client, const char* app_name);

/// Stops and disconnects cleanly; waits at most 1 s. A callback that is running is not waited for.
ORVSTACKSDK_EXPORT int orv_client_deinit(struct orv_client* client);

/// Announces the application as available, then as booting.
ORVSTACKSDK_EXPORT int orv_client_start(struct orv_client* client);

/// Notes that the application no longer runs. Nothing is sent.
ORVSTACKSDK_EXPORT int orv_client_stop(struct orv_client* client);

/// Moves the WAN route supervision one step; 100 ms to 1 s between two of them is sensible. Never waits.
/// @param elapsed_ms milliseconds since the last tick; not used, because the client has its own clock
ORVSTACKSDK_EXPORT int orv_client_tick(struct orv_client* client, int elapsed_ms);

/// Reports the application's own status.
/// @param status one of enum orv_app_status
ORVSTACKSDK_EXPORT int orv_client_app_status(struct orv_client* client, int status);

/// Sends an action to an application, this one or another.
/// @param action one of enum orv_app_action
ORVSTACKSDK_EXPORT int orv_client_app_action(struct orv_client* client, const char* app, int action);

/// Reports a connectivity event. Waits for the disk of the two status files.
/// @param event one of enum orv_event
ORVSTACKSDK_EXPORT int orv_client_event(struct orv_client* client, int event);

/// Call it after each tick.
/// @return 1 once after each move of the WAN route: the application must then connect to the cloud again; otherwise 0,
///         or an error, which is negative
ORVSTACKSDK_EXPORT int orv_client_cloud_reconnect_needed(struct orv_client* client);

/// Asks all applications to prepare for shutdown.
ORVSTACKSDK_EXPORT int orv_client_request_shutdown(struct orv_client* client);

/// Sends a command to the panel.
/// @param command the command's text, passed on unchanged
/// @param value   1 to 7, see IOrvStackClient::PanelCommandRequest; any other is logged and nothing is sent
ORVSTACKSDK_EXPORT int orv_client_panel_command(struct orv_client* client, const char* command, int value);

/// Publishes the state of the cellular connection, passed on unchanged.
ORVSTACKSDK_EXPORT int orv_client_connection_status(struct orv_client* client, const char* status);

#ifdef __cplusplus
}
#endif

#endif
