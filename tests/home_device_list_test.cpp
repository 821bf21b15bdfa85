#include "home_device_list.h"

#include "robot.h"

namespace {

class DeviceList : public Robot {
  protected:
    DeviceList() { init_device_list(); }
    // Whether it was new, and whether the list changed: "new", "changed", "new changed" or "".
    static std::string add(const char *name, uint32_t rank, const char *ip, const char *mac,
                           const char *md = nullptr) {
        clear_device_list_updated();
        const bool is_new =
            add_entry_to_device_list(name, rank, ip, mac, nullptr, nullptr, nullptr, md) != nullptr;
        return std::string(is_new ? "new " : "") + (device_list_updated() != 0 ? "changed" : "");
    }
    static std::string listed() {
        std::string text;
        for (const device_texts &device : copy_device_list())
            text += device.name.value_or("-") + " " + device.ip.value_or("-") + " " +
                    device.mac.value_or("-") + " " + device.md.value_or("-") + "\n";
        return text;
    }
};

TEST_F(DeviceList, KnownDevicesAreCompletedAndNamedByRank) {
    const char *const kIp = "192.0.2.7", *const kMac = "a:b:c:d:e:f",
                      *const kStored = "0a:0b:0c:0d:0e:0f";
    EXPECT_EQ(add("none", 0, nullptr, nullptr), "");
    EXPECT_EQ(add("rank 0", 0, kIp, nullptr), "new changed");
    EXPECT_EQ(add("Lamp", 2, kIp, nullptr), "changed");
    EXPECT_EQ(add("other", 2, kIp, nullptr), "");
    EXPECT_EQ(add("Friendly", 3, kIp, nullptr, "M1"), "changed");
    EXPECT_EQ(add(nullptr, 0, kIp, nullptr, "M2"), "");
    // The one at this address has no hardware address yet, so this is another device.
    EXPECT_EQ(add("Second", 2, kIp, kMac), "new changed");
    EXPECT_EQ(learn_device_mac(kIp, "1:2:3:4:5:6"), 1);
    EXPECT_EQ(learn_device_mac(kIp, "1:2:3:4:5:7"), 0);
    EXPECT_EQ(add(nullptr, 0, kIp, kStored, "M3"), "");
    EXPECT_TRUE(logged("(add_entry_to_device_list) already known 192.0.2.7"));
    EXPECT_EQ(add(nullptr, 0, nullptr, kStored, "M3"), "") << "complete but for its model";
    EXPECT_EQ(add("x", 3, nullptr, kStored, "M3"), "changed");
    EXPECT_EQ(listed(),
              "Friendly 192.0.2.7 01:02:03:04:05:06 M1\nx 192.0.2.7 0a:0b:0c:0d:0e:0f M3\n");
}

// A survey of the channels adds each access point anew.
TEST_F(DeviceList, SenselessHardwareAddressIsOneDevice) {
    for (const char *ip : {static_cast<const char *>(nullptr), "192.0.2.7"}) {
        clear_device_list();
        EXPECT_EQ(add("Lamp", 2, ip, ":"), "new changed");
        EXPECT_EQ(add("Lamp", 2, ip, ":"), "");
        EXPECT_EQ(add("Lamp", 2, ip, "::"), "new changed") << "another device";
        EXPECT_EQ(add("Friendly", 3, ip, ":"), "changed");
        const std::string keys = ip != nullptr ? " 192.0.2.7 - -\n" : " - - -\n";
        EXPECT_EQ(listed(), "Friendly" + keys + "Lamp" + keys);
    }
    EXPECT_TRUE(logged("store_arping_mac_address_alloc failed"));
    EXPECT_EQ(learn_device_mac("192.0.2.7", "1:2:3:4:5:6"), 1);
    EXPECT_EQ(add("Lamp", 2, "192.0.2.7", ":"), "");
}

TEST_F(DeviceList, IterationEndsWhereAnEntryHasGone) {
    add("a", 1, "192.0.2.1", nullptr);
    add("b", 1, "192.0.2.2", nullptr);
    add("c", 1, "192.0.2.3", nullptr);
    device_entry *const a = get_next_device_entry(nullptr);
    device_entry *const b = get_next_device_entry(a);
    lock_device_list();
    EXPECT_EQ(remove_device_entry_if_any(find_device_entry("192.0.2.2", nullptr)), 1);
    EXPECT_EQ(remove_device_entry_if_any(find_device_entry("192.0.2.2", nullptr)), 0);
    EXPECT_EQ(unlock_device_list(), 0);
    EXPECT_EQ(get_next_device_entry(b), nullptr);
    device_entry *const c = get_next_device_entry(a);
    lock_device_list();
    remove_device_entry(c);
    unlock_device_list();
    add("d", 1, "192.0.2.4", nullptr);
    EXPECT_EQ(listed(), "a 192.0.2.1 - -\nd 192.0.2.4 - -\n");
    clear_device_list();
    EXPECT_EQ(get_next_device_entry(a), nullptr);
    EXPECT_TRUE(is_device_list_empty());
}

TEST_F(DeviceList, HardwareAddressesAreBounded) {
    const std::pair<const char *, const char *> cases[] = {
        {"AA:b:0c:d:e:ff", "AA:0b:0c:0d:0e:ff"},
        {"a", "0a"},
        {"abc::d", "abc:0d"},
        {"1:2:3:4:5:6:7:8:9", "01:02:03:04:05:06:07:08"},
        {"0123456789012345678901234567890", "01234567890123456789012"},
        {":::", nullptr},
        {nullptr, nullptr},
    };
    for (const auto &[text, expected] : cases) {
        const MallocText mac(store_arping_mac_address_alloc(text));
        EXPECT_STREQ(mac.get(), expected);
    }
}

TEST_F(DeviceList, HoldsAsManyAsAMemoryBears) {
    for (int i = 0; i < 4200; i++)
        add_entry_to_device_list(nullptr, 0, std::to_string(i).c_str(), nullptr, nullptr, nullptr,
                                 nullptr, nullptr);
    EXPECT_EQ(copy_device_list().size(), 4096u);
    EXPECT_TRUE(logged("too many devices"));
    EXPECT_EQ(times_logged("too many devices"), 1);
    clear_device_list();
    EXPECT_NE(
        add_entry_to_device_list(nullptr, 0, "a", nullptr, nullptr, nullptr, nullptr, nullptr),
        nullptr);
}

}  // namespace
