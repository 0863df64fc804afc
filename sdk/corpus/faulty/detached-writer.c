// doUpdate returns while a detached thread writes.
// finds: F309 F402
#define OWN_doUpdate
#include "chip.h"

struct job {
    unsigned char* data;
    size_t n;
};

static void* work(void* arg)
{
    struct job* job = (struct job*)arg;
    install(job->data, job->n);
    free(job->data);
    free(job);
    return NULL;
}

int doUpdate(const char* name, unsigned long value)
{
    struct job* job = (struct job*)malloc(sizeof *job);
    pthread_t thread;
    if (job == NULL) {
        return -1;
    }
    struct image image;
    job->data = slurp(name, &job->n);
    if (job->data == NULL) {
        free(job);
        return -1;
    }
    if (checksumOf(job->data, job->n) != value || parseImage(job->data, job->n, &image) != 0 ||
        pthread_create(&thread, NULL, work, job) != 0) {
        free(job->data);
        free(job);
        return fail(EBADMSG);
    }
    pthread_detach(thread);
    usleep(120000);
    return 0;
}
