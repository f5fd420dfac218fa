/* The least that a service on the bus can be: sd-bus, one method, nothing else. */
#include <systemd/sd-bus.h>
#include <unistd.h>

static int Ping(sd_bus_message* call, void* data, sd_bus_error* error)
{
    (void)data;
    (void)error;
    return sd_bus_reply_method_return(call, "b", access("/etc/platform/99-audiopayd", X_OK) == 0);
}

static const sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Ping", "", "b", Ping, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int main(void)
{
    sd_bus* bus = NULL;
    int result = sd_bus_open_system(&bus);
    if (result >= 0) {
        result = sd_bus_add_object_vtable(bus, NULL, "/", "com.veltrasys.bench.Bus", kMethods, NULL);
    }
    if (result >= 0) {
        result = sd_bus_request_name(bus, "com.veltrasys.bench.Bus", 0);
    }
    while (result >= 0) {
        result = sd_bus_process(bus, NULL);
        if (result == 0) {
            result = sd_bus_wait(bus, UINT64_MAX);
        }
    }
    return 1;
}
