/* Every field of the records the C interface copies, at the offset the
 * header documents: a client compiled for one architecture (x86-64, aarch64)
 * must work with the library built for the other, so these numbers are the
 * same on both. A compile-time check: the build fails where one differs. */
#include <VQXScanInterface.h>

#include <stddef.h>

#define AT(record, field, offset) \
    typedef char layout_##record##_##field[offsetof(record, field) == (offset) ? 1 : -1]
#define SIZE(record, bytes) typedef char size_##record[sizeof(record) == (bytes) ? 1 : -1]

SIZE(VQX_SCANNER_LIGHTING, 28);
AT(VQX_SCANNER_LIGHTING, size, 0);
AT(VQX_SCANNER_LIGHTING, scanning_mode, 4);
AT(VQX_SCANNER_LIGHTING, idle_mode, 8);
AT(VQX_SCANNER_LIGHTING, reserved, 12);
AT(VQX_SCANNER_LIGHTING, level_a, 16);
AT(VQX_SCANNER_LIGHTING, level_b, 20);
AT(VQX_SCANNER_LIGHTING, boost, 24);

SIZE(VQX_IMAGE_ATTRIBUTES, 40);
AT(VQX_IMAGE_ATTRIBUTES, size, 0);
AT(VQX_IMAGE_ATTRIBUTES, exposure, 4);
AT(VQX_IMAGE_ATTRIBUTES, gain, 8);
AT(VQX_IMAGE_ATTRIBUTES, white_value, 12);
AT(VQX_IMAGE_ATTRIBUTES, max_value, 16);
AT(VQX_IMAGE_ATTRIBUTES, height, 20);
AT(VQX_IMAGE_ATTRIBUTES, width, 24);
AT(VQX_IMAGE_ATTRIBUTES, frame_number, 28);
AT(VQX_IMAGE_ATTRIBUTES, reserved1, 32);
AT(VQX_IMAGE_ATTRIBUTES, reserved2, 34);
AT(VQX_IMAGE_ATTRIBUTES, discarded, 36);

SIZE(VQX_SCANENGINE_PROPERTIES_EX, 224);
AT(VQX_SCANENGINE_PROPERTIES_EX, size, 0);
AT(VQX_SCANENGINE_PROPERTIES_EX, engine_id_class, 4);
AT(VQX_SCANENGINE_PROPERTIES_EX, image_height, 8);
AT(VQX_SCANENGINE_PROPERTIES_EX, image_width, 12);
AT(VQX_SCANENGINE_PROPERTIES_EX, pixel_depth, 16);
AT(VQX_SCANENGINE_PROPERTIES_EX, reserved1, 20);
AT(VQX_SCANENGINE_PROPERTIES_EX, aimer_x, 24);
AT(VQX_SCANENGINE_PROPERTIES_EX, aimer_y, 28);
AT(VQX_SCANENGINE_PROPERTIES_EX, reserved2, 32);
AT(VQX_SCANENGINE_PROPERTIES_EX, buffer_count, 40);
AT(VQX_SCANENGINE_PROPERTIES_EX, psoc_rev_low, 44);
AT(VQX_SCANENGINE_PROPERTIES_EX, psoc_rev_high, 48);
AT(VQX_SCANENGINE_PROPERTIES_EX, serial_number, 52);
AT(VQX_SCANENGINE_PROPERTIES_EX, reserved3, 133);
AT(VQX_SCANENGINE_PROPERTIES_EX, engine_id, 136);
AT(VQX_SCANENGINE_PROPERTIES_EX, reserved4, 140);

/* The exposure-settings pairs are 32-bit words on both. */
typedef char uint32_is_4_bytes[sizeof(uint32_t) == 4 ? 1 : -1];
