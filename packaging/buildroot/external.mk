include $(sort $(wildcard $(BR2_EXTERNAL_KORVO_PATH)/package/*/*.mk))
