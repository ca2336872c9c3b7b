# SPDX-License-Identifier: Apache-2.0
# All that a product needs for the service. In its device.mk:
#
#     $(call inherit-product, hardware/zaltho/interfaces/activity_recognition/activity_recognition.mk)
#
# The last three variables are the board's. BoardConfig.mk is read later: there they must be added to
# (+=), since an assignment (:=) would drop what stands here.

PRODUCT_PACKAGES += \
    vendor.zaltho.hardware.activity_recognition@1.1-impl \
    vendor.zaltho.hardware.activity_recognition@1.1-service

activity_recognition_dir := hardware/zaltho/interfaces/activity_recognition/1.1/default
DEVICE_MANIFEST_FILE += $(activity_recognition_dir)/manifest.xml
DEVICE_FRAMEWORK_COMPATIBILITY_MATRIX_FILE += $(activity_recognition_dir)/compatibility_matrix.xml
BOARD_SEPOLICY_DIRS += $(activity_recognition_dir)/sepolicy
