/* A minimal game host in C: links the installed libKavelin, plays one clip through
 * the C ABI as a premium viewer (no ad breaks) and exits 0 once it has finished.
 *
 *   kavelin-example-host <clip address> [timeout seconds]
 */
#include <Kavelin/Kavelin.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static int finished = 0;

/* Runs on the library's thread: note the event and return at once, never wait here
 * for the game thread (it may be inside a Kavelin call). */
static void onEvent(const char* message) {
    printf("event %s\n", message);
    fflush(stdout);
    if (strncmp(message, "OnVideoFinished:", 16) == 0) {
        pthread_mutex_lock(&lock);
        finished = 1;
        pthread_cond_signal(&changed);
        pthread_mutex_unlock(&lock);
    }
}

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s <clip address> [timeout seconds]\n", argv[0]);
        return 2;
    }
    const int timeout = argc > 2 ? atoi(argv[2]) : 60;
    char episodes[4096];
    snprintf(episodes, sizeof episodes,
             "[{\"id\":\"example\",\"episodes\":[{\"index\":\"clip\",\"url\":\"%s\","
             "\"thumbnail\":\"\",\"title\":\"Clip\",\"isActive\":1,\"length\":0}]}]",
             argv[1]);

    registerUnityCallback(onEvent);
    SetPlaylists("[{\"id\":\"example\",\"name\":\"Example\",\"thumbnail\":\"\"}]");
    SetEpisodes(episodes);
    SetPremium(true);
    PlayPlaylist("example");

    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += timeout;
    pthread_mutex_lock(&lock);
    while (!finished && pthread_cond_timedwait(&changed, &lock, &deadline) == 0) {
    }
    const int ok = finished;
    pthread_mutex_unlock(&lock);

    cleanup();
    printf("%s\n", ok ? "finished" : "timed out");
    return ok ? 0 : 1;
}
