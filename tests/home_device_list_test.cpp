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
                      *const kStored = "0a:0b:0c:0d:0e:0f", *const kNew = "new changed";
    const struct {
        const char *name;
        uint32_t rank;
        const char *ip, *mac, *md, *outcome;
    } added[] = {
        {"none", 0, nullptr, nullptr, nullptr, ""},
        {"rank 0", 0, kIp, nullptr, nullptr, kNew},
        {"Lamp", 2, kIp, nullptr, nullptr, "changed"},
        {"other", 2, kIp, nullptr, nullptr, ""},
        {"Friendly", 3, kIp, nullptr, "M1", "changed"},
        {nullptr, 0, kIp, nullptr, "M2", ""},
        // The one at this address has no hardware address yet, so this is another device.
        {"Second", 2, kIp, kMac, nullptr, kNew},
        {nullptr, 0, kIp, kStored, "M3", ""},  // complete but for its model
        {nullptr, 0, nullptr, kStored, "M3", ""},
        {"x", 3, nullptr, kStored, "M3", "changed"},
        {nullptr, 0, nullptr, "0a:01", nullptr, kNew},
        {nullptr, 0, "192.0.2.8", "0a:01", nullptr, kNew},
        // A survey of the channels adds each access point anew, one without sense once.
        {"Odd", 2, nullptr, ":", nullptr, kNew},
        {"Odd", 2, nullptr, ":", nullptr, ""},
        {"Odd", 2, "192.0.2.9", "::", nullptr, kNew},
        {"Friendly", 3, nullptr, ":", nullptr, "changed"},
        {"Friendly", 3, "192.0.2.9", "::", nullptr, "changed"},
    };
    for (const auto &row : added)
        EXPECT_EQ(add(row.name, row.rank, row.ip, row.mac, row.md), row.outcome)
            << "row " << &row - added;
    EXPECT_TRUE(logged("(add_entry_to_device_list) already known 192.0.2.7"));
    EXPECT_TRUE(logged("store_arping_mac_address_alloc failed"));
    EXPECT_EQ(learn_device_mac(kIp, "1:2:3:4:5:6"), 1);
    EXPECT_EQ(learn_device_mac("192.0.2.9", "::"), -1);
    EXPECT_EQ(learn_device_mac(kIp, "1:2:3:4:5:7"), 0);
    EXPECT_EQ(learn_device_mac("192.0.2.9", "1:2:3:4:5:8"), 1);
    EXPECT_EQ(add("Friendly", 3, "192.0.2.9", "::"), "") << "as it was first known";
    EXPECT_EQ(listed(),
              "Friendly 192.0.2.7 01:02:03:04:05:06 M1\nx 192.0.2.7 0a:0b:0c:0d:0e:0f M3\n"
              "- - 0a:01 -\n- 192.0.2.8 0a:01 -\n"
              "Friendly - - -\nFriendly 192.0.2.9 01:02:03:04:05:08 -\n");
}

TEST_F(DeviceList, IterationEndsWhereAnEntryHasGone) {
    for (const char *name : {"a", "b", "c"})
        add(name, 1, name, nullptr);
    device_entry *const a = get_next_device_entry(nullptr), *const b = get_next_device_entry(a);
    lock_device_list();
    EXPECT_EQ(remove_device_entry_if_any(find_device_entry("b", nullptr)), 1);
    EXPECT_EQ(remove_device_entry_if_any(find_device_entry("b", nullptr)), 0);
    EXPECT_EQ(remove_device_entry(find_device_entry("c", nullptr)) + unlock_device_list(), 1);
    EXPECT_EQ(get_next_device_entry(b), nullptr);
    add("d", 1, "d", nullptr);
    EXPECT_EQ(get_next_device_entry(a), find_device_entry_locked("d", nullptr));
    EXPECT_EQ(listed(), "a a - -\nd d - -\n");
    clear_device_list();
    EXPECT_TRUE(get_next_device_entry(a) == nullptr && is_device_list_empty());
}

TEST_F(DeviceList, HardwareAddressesAreBounded) {
    for (const auto &[text, expected] :
         {std::pair("AA:b:0c:d:e:ff", "AA:0b:0c:0d:0e:ff"),
          {"a", "0a"},
          {"abc::d", "abc:0d"},
          {"1:2:3:4:5:6:7:8:9", "01:02:03:04:05:06:07:08"},
          {"0123456789012345678901234567890", "01234567890123456789012"},
          {":::", nullptr},
          {nullptr, nullptr}})
        EXPECT_STREQ(MallocText(store_arping_mac_address_alloc(text)).get(), expected);
}

TEST_F(DeviceList, HoldsAsManyAsAMemoryBears) {
    for (int i = 0; i < 4098; i++)
        EXPECT_EQ(add(nullptr, 0, std::to_string(i).c_str(), nullptr),
                  i < 4096 ? "new changed" : "");
    EXPECT_EQ(times_logged("too many devices"), 1);
    clear_device_list();
    EXPECT_EQ(add(nullptr, 0, "a", nullptr), "new changed");
}

}  // namespace
