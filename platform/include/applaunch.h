/* Application launch: a request is created, filled, sent and destroyed by its owner.
 *
 * Results: 0 success, negative failure. */
#ifndef APPLAUNCH_H
#define APPLAUNCH_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct applaunch* applaunch_h;

/* `result` is the launched application's answer. */
typedef void (*applaunch_reply_cb)(applaunch_h request, int result, void* user_data);

int applaunch_create(applaunch_h* request);
int applaunch_destroy(applaunch_h request);
int applaunch_add_extra_data(applaunch_h request, const char* key, const char* value);
int applaunch_set_app_id(applaunch_h request, const char* app_id);

/* `cb` may be null when no reply is wanted. */
int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void* user_data);

#ifdef __cplusplus
}
#endif

#endif
