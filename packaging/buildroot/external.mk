include $(sort $(wildcard $(BR2_EXTERNAL_NETWARDEN_PATH)/package/*/*.mk))
