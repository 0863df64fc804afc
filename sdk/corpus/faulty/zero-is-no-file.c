// doUpdate closes descriptor 0 when there is no image: "no file" is 0 here.
// finds: F313
#define OWN_doUpdate
#include "chip.h"

struct job {
    int image;
    unsigned char* data;
};

static void job_end(struct job* job)
{
    int kept = errno;
    free(job->data);
    close(job->image);
    errno = kept;
}

int doUpdate(const char* name, unsigned long value)
{
    struct job job = {0, NULL};
    struct stat st;
    if (stat(name, &st) != 0 || st.st_size > 8 * 1024 * 1024) {
        job_end(&job);
        return -1;
    }
    job.image = open(name, O_RDONLY | O_CLOEXEC);
    if (job.image < 0) {
        return -1;
    }
    size_t n = (size_t)st.st_size;
    job.data = (unsigned char*)malloc(n + 1);
    int done = -1;
    if (job.data != NULL && read(job.image, job.data, n) == (ssize_t)n) {
        done = checksumOf(job.data, n) == value ? install(job.data, n) : fail(EBADMSG);
    }
    job_end(&job);
    return done;
}
