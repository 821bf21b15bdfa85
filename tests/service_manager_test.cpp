#include "service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include "owned.h"
#include "robot.h"

namespace {

using ServiceManager = Robot;

// What was told at that address since the last call: "READY=1|WATCHDOG=1..."
class Manager {
  public:
    explicit Manager(const std::string &name) {
        sockaddr_un address{AF_UNIX, {}};
        name.copy(address.sun_path, sizeof address.sun_path);
        std::replace(address.sun_path, address.sun_path + 1, '@', '\0');
        const auto length = static_cast<socklen_t>(sizeof(sa_family_t) + name.size());
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), length), 0);
    }
    std::string heard() {
        std::string all;
        char text[512];
        for (ssize_t length; (length = recv(socket_.get(), text, sizeof text, MSG_DONTWAIT)) > 0;)
            all += std::string(text, static_cast<size_t>(length)) + "|";
        return all;
    }

  private:
    Fd socket_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

TEST_F(ServiceManager, IsToldWhereItListensAndNoChildKnowsWhere) {
    service_manager_tell("nobody");  // before it is known where
    for (const std::string &name :
         std::vector<std::string>{"/tmp/notify", "@notify", "/tmp/" + std::string(103, 'n')}) {
        Manager manager(name);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        service_manager_ready();
        EXPECT_EQ(getenv("NOTIFY_SOCKET"), nullptr);
        service_manager_tell(std::string(300, 's').c_str());
        const bool is_whole = name.size() < 108;
        service_manager_tell("stuck", true);
        EXPECT_EQ(manager.heard(),
                  is_whole
                      ? "READY=1|WATCHDOG=1\nSTATUS=" + std::string(200, 's') + "|STATUS=stuck|"
                      : "");
        service_manager_ready();
        for (int i = 0; i < 1000; i++)  // it has stopped reading
            service_manager_tell("x");
    }
    for (const char *name : {"", "@", "vsock:2:1", "/tmp/nobody"}) {
        setenv("NOTIFY_SOCKET", name, 1);
        service_manager_ready();
        service_manager_tell("x");
        EXPECT_TRUE(logged_as("WARN", "no service manager at NOTIFY_SOCKET " + std::string(name)));
    }
}

}  // namespace
