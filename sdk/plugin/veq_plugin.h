/* The plugin ABI of the VEQ plugin host (docs/plugins.md).
 *
 * A plugin is a shared library that the host program loads with dlopen. It exports one function,
 * veq_plugin_start, which the host calls once it is connected to the plugin's broker. Everything
 * that crosses this boundary is plain C: numbers, and UTF-8 text in which records are the JSON
 * objects of the command protocol (docs/protocol.md: Message, Result, Notification). The ABI only
 * grows: new members go at the end of the structs, whose first member says their size.
 *
 * Threads: the host calls veq_plugin_start on its main thread, and the plugin's callbacks on its
 * connection thread, one at a time; the plugin may call send() from any thread, veq_plugin_start
 * included, but not from inside a callback (it would wait for itself; send() then fails with
 * VEQ_ERROR_IN_CALLBACK).
 */
#ifndef VEQ_PLUGIN_H
#define VEQ_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VEQ_PLUGIN_ABI_VERSION 1u

#define VEQ_PLUGIN_EXPORT __attribute__((visibility("default")))

/* Results of send(). */
#define VEQ_OK 0
#define VEQ_ERROR_NO_REPLY 1         /* no result within the timeout */
#define VEQ_ERROR_DISCONNECTED 2     /* the broker is gone; the host is about to end */
#define VEQ_ERROR_IN_CALLBACK 3      /* called from inside a callback of the host */
#define VEQ_ERROR_INVALID_ARGUMENT 4 /* a null pointer where text was needed */

/* Levels of log(). */
#define VEQ_LOG_ERROR 1
#define VEQ_LOG_WARNING 2
#define VEQ_LOG_INFO 3
#define VEQ_LOG_DEBUG 4

typedef struct veq_host veq_host; /* the host's side of the connection; opaque */

/* What the host offers the plugin. Valid from veq_plugin_start until on_stop has returned. */
typedef struct veq_host_api {
    uint32_t size;        /* sizeof(veq_host_api) of the host that filled it */
    uint32_t abi_version; /* VEQ_PLUGIN_ABI_VERSION of the host */
    veq_host* host;

    /* Sends a command and waits up to timeout_ms for its result. target_id NULL or "" (or "VEQ")
     * addresses the service; another id routes the command to that plugin or app. On VEQ_OK,
     * *result_json is the Result record as JSON text, to be released with free_text. */
    int (*send)(veq_host* host, const char* command, const char* payload, const char* target_id,
                uint32_t timeout_ms, char** result_json);
    void (*free_text)(char* text);
    /* One line into the host's log file. */
    void (*log)(veq_host* host, int level, const char* text);

    /* Who this plugin is, as the service told the host: */
    const char* plugin_id;
    const char* plugin_name;
    const char* plugin_directory; /* folder of the plugin's entry file */
    const char* side;             /* "elevated" or "user" */
} veq_host_api;

/* What the plugin offers the host; veq_plugin_start fills it. Null callbacks are allowed. */
typedef struct veq_plugin_callbacks {
    uint32_t size; /* set by the host before the call: sizeof(veq_plugin_callbacks) of the host */
    void* state;   /* the plugin's own; passed back to every callback */

    /* A push from the service, such as "Receive-DeviceConfig": the Notification as JSON text. */
    void (*on_push)(void* state, const char* notification_json);
    /* A request the service routes to this plugin (a command it declared): the Message as JSON
     * text. Returns a Result as JSON text allocated with malloc (the host frees it), or NULL for
     * a refusal. */
    char* (*on_request)(void* state, const char* message_json);
    /* "StopPlugin", or the service went away: the plugin ends its work and frees its state. The
     * host exits when this returns. */
    void (*on_stop)(void* state);
} veq_plugin_callbacks;

/* The plugin's entry. Returns 0 when the plugin runs; anything else makes the host exit with an
 * error. Called once, on the host's main thread, after the host has connected. */
typedef int (*veq_plugin_start_fn)(const veq_host_api* host, veq_plugin_callbacks* callbacks);
#define VEQ_PLUGIN_START_SYMBOL "veq_plugin_start"

#ifdef __cplusplus
}
#endif

#endif /* VEQ_PLUGIN_H */
