/* Answers the requests for /cgi-bin/@NAME@/..., which the web server hands over at a socket. */
#include <fcgiapp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>

static void hello(FCGX_Request* request)
{
    char who[40] = "nobody";
    sscanf(FCGX_GetParam("QUERY_STRING", request->envp), "who=%39[A-Za-z0-9]", who);
    syslog(LOG_INFO, "hello to %s", who);
    FCGX_FPrintF(
        request->out,
        "Content-Type: text/html; charset=utf-8\r\n\r\n<!DOCTYPE html><meta charset=\"utf-8\">"
        "<title>Hello</title><link rel=\"stylesheet\" href=\"/html/@NAME@/style.css\"><h1>Hello %s</h1>"
        "<a href=\"/cgi-bin/page/show?path=@NAME@/index.html\">Back</a>\n",
        who);
}

/* The terminal asks this before it goes down. Two seconds after all were asked, all programs are ended. */
static void stop(FCGX_Request* request)
{
    syslog(LOG_INFO, "asked to stop");
    FCGX_FPrintF(request->out, "Content-Type: text/plain\r\n\r\nstopping\n");
}

int main(void)
{
    const char* path = getenv("APP_FASTCGI_SOCKET");
    FCGX_Request request;
    int listener;

    openlog("@NAME@", 0, LOG_USER);
    umask(0007); /* the web server reaches the socket through the group of this application, and needs to
                    write */
    listener = path != NULL && FCGX_Init() == 0 ? FCGX_OpenSocket(path, 16) : -1;
    if (listener < 0 || FCGX_InitRequest(&request, listener, 0) != 0) {
        fprintf(stderr, "cannot listen on %s\n",
                path != NULL ? path : "APP_FASTCGI_SOCKET, which is not set");
        return 1;
    }
    fprintf(stderr, "listening on %s\n", path);
    while (FCGX_Accept_r(&request) == 0) {
        const char* uri = FCGX_GetParam("SCRIPT_NAME", request.envp);
        if (strcmp(uri, "/cgi-bin/@NAME@/hello") == 0)
            hello(&request);
        else if (strcmp(uri, "/cgi-bin/@NAME@/stop") == 0)
            stop(&request);
        else
            FCGX_FPrintF(request.out, "Status: 404 Not Found\r\n\r\n");
    }
    return 0;
}
