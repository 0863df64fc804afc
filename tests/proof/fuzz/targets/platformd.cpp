// The calls of the platform's bus, of several clients that come and go, as the set's services take them.
//
// A line is a call: its method's name and its arguments, with tabulators between them. A digit before it is
// the client; a minus there means that the client ends.
#include <filesystem>

#include "common/json-text.h"
#include "platform-interfaces.h"
#include "tests/proof/fuzz/private-bus.h"
#include "tests/proof/fuzz/target.h"
#include "vset/platformd/bus/control.h"
#include "vset/platformd/bus/services.h"

namespace
{

namespace fs = std::filesystem;

constexpr size_t kMostCalls = 40;

// Of what the services keep; each input meets a set that has never been on.
void forget()
{
    for (const fs::directory_entry& entry : fs::directory_iterator("/var/lib/platform")) {
        fs::remove_all(entry.path());
    }
    fs::remove("/run/platform-boot.json");
}

// An answer that waits longer than anybody would.
bool isLate(std::string_view call)
{
    return call.find("SetDelay") != std::string_view::npos;
}

void make(const fuzz::PrivateBus& bus, std::string_view line)
{
    const bool isEnd = !line.empty() && line[0] == '-';
    line.remove_prefix(isEnd ? 1 : 0);
    std::string client = ":1.1";
    if (!line.empty() && line[0] >= '0' && line[0] <= '9') {
        client = std::string(":1.") + line[0];
        line.remove_prefix(1);
    }
    if (isEnd) {
        bus.leave(client);
    } else if (!isLate(line)) {
        bus.call(&org_pellor_platform_services_interface, client, line);
        bus.call(&org_pellor_platform_control_interface, client, line);
    }
}

void run(std::string_view input)
{
    forget();
    const fuzz::PrivateBus bus;
    vset::SetModel set(bus.service(), false);
    const vset::Services services(bus.service(), set);
    const vset::Control control(bus.service(), set);
    for (size_t calls = 0; calls < kMostCalls && !input.empty(); ++calls) {
        const size_t end = input.find('\n');
        make(bus, input.substr(0, end));
        input.remove_prefix(end == std::string_view::npos ? input.size() : end + 1);
    }
    const std::string json = bus.ask(&org_pellor_platform_control_interface, "Snapshot");
    fuzz::require(common::parseJsonObject(json).has_value(), "the set can be shown");
}

const fuzz::Target target("platformd", run);

} // namespace
