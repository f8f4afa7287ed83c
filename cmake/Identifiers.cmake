# The USB identifiers that the library handles, in the order in which it registers for them.
# This list is the only one: the library's table, by which the command names the kinds, and the udev
# rule are generated from it; the public header has the first vendor.
set(VEXA_USB_VENDOR_ID 0x5658 CACHE STRING "USB vendor identifier of the instrument family")
if(NOT VEXA_USB_VENDOR_ID MATCHES "^0x[0-9A-Fa-f][0-9A-Fa-f][0-9A-Fa-f][0-9A-Fa-f]$")
    message(FATAL_ERROR "VEXA_USB_VENDOR_ID must look like 0x5658, not '${VEXA_USB_VENDOR_ID}'")
endif()

set(VEXA_USB_IDENTIFIERS
    "${VEXA_USB_VENDOR_ID}:any:instrument"
    "0x04B4:0x8613:Cypress FX2 without firmware"
    "0x04B4:0x00F3:Cypress FX3 boot loader"
    "0x15A2:0x0076:NXP i.MX7 in serial-download mode")

set(VEXA_USB_DEVICE_ROWS "")
set(VEXA_USB_UDEV_RULES "")
foreach(entry IN LISTS VEXA_USB_IDENTIFIERS)
    string(REPLACE ":" ";" fields "${entry}")
    list(GET fields 0 vendor)
    list(GET fields 1 product)
    list(GET fields 2 text)
    string(SUBSTRING "${vendor}" 2 -1 vendorHex)
    string(TOLOWER "${vendorHex}" vendorHex)
    set(match "ATTR{idVendor}==\"${vendorHex}\"")
    if(product STREQUAL "any")
        set(productRow "kAnyProduct")
    else()
        set(productRow "${product}")
        string(SUBSTRING "${product}" 2 -1 productHex)
        string(TOLOWER "${productHex}" productHex)
        string(APPEND match ", ATTR{idProduct}==\"${productHex}\"")
    endif()
    string(APPEND VEXA_USB_DEVICE_ROWS "    SupportedDevice{${vendor}, ${productRow}, \"${text}\"},\n")
    string(APPEND VEXA_USB_UDEV_RULES "# ${text}\n${match}, MODE=\"0660\", GROUP=\"plugdev\", TAG+=\"uaccess\"\n")
endforeach()
string(REGEX REPLACE "\n$" "" VEXA_USB_DEVICE_ROWS "${VEXA_USB_DEVICE_ROWS}")
string(REGEX REPLACE "\n$" "" VEXA_USB_UDEV_RULES "${VEXA_USB_UDEV_RULES}")
