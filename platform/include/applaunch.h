/* Application launch: a request is created, filled, sent and destroyed by its owner.
 *
 * Results: 0 success, negative failure. The daemon calls from a thread of its own, and texts are gone when
 * the call has returned.
 *
 * What the daemon relies on: what it cannot create it goes on with as a null request, so a null request is
 * refused with a negative result and never crashes. A launch is tried up to nine times with one request: what
 * has failed before does not spoil the next try. */
#ifndef APPLAUNCH_H
#define APPLAUNCH_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct applaunch* applaunch_h;

/* `result` is the launched application's answer. */
typedef void (*applaunch_reply_cb)(applaunch_h request, int result, void* user_data);

/* Each request is one of its own. */
int applaunch_create(applaunch_h* request);
int applaunch_destroy(applaunch_h request);
/* Takes any pair of texts, and any identifier: whether there is such an application is found when it is sent.
 */
int applaunch_add_extra_data(applaunch_h request, const char* key, const char* value);
int applaunch_set_app_id(applaunch_h request, const char* app_id);

/* `cb` may be null when no reply is wanted; the daemon's is. Answers within five seconds. A reply is told
 * once at most, and none after the request was destroyed. */
int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void* user_data);

#ifdef __cplusplus
}
#endif

#endif
