#!/bin/bash
# Builds the sysfs fixture trees beside this script: one directory per machine, each laid out like
# /sys (devices/, class/, dev/block/, relative symbolic links as the kernel makes them). The trees
# are kept in the repository; run this again only to change them.
#
# Machines:
#   nvme-laptop   nvme0n1 (+p1, p2) on a PCIe 3.0 x4 Samsung controller
#   nvme-x1       the same drive in a slot wired for one lane: PCIe 3.0 x1, the drive can do x4
#   usb-stick     sdb (+sdb1), a SanDisk Ultra Fit (USB 3.20) behind a USB 3 hub at 5 Gb/s
#   usb2-port     the same stick on a USB 2 port: enumerated at 480 Mb/s on the high-speed bus
#   usb-gen2      sdb (+sdb1), a Samsung T7 (USB 3.10) on a 10 Gb/s root port
#   sata-disk     sda (+sda1) on an AHCI port at 6.0 Gbps
#   sata-3g       the same disk linked at 3.0 Gbps on a 6.0 Gbps port
#   virtio-disk   vda (+vda1) on a virtio-blk PCI function
#   loop          loop0 backed by a file
#   dmcrypt-nvme  dm-0 (LUKS2) on nvme0n1p3, plus the NVMe tree
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
cd "$here"

machine=""

# attr PATH VALUE...: an attribute file holding the values, one per line.
attr() {
    local file="$machine/$1"
    shift
    mkdir -p "$(dirname "$file")"
    printf '%s\n' "$@" >"$file"
}

# link PATH TARGET: a relative symbolic link at PATH to TARGET (both relative to the machine root).
link() {
    local at="$machine/$1" target="$machine/$2"
    mkdir -p "$(dirname "$at")"
    ln -s "$(realpath -m --relative-to="$(dirname "$at")" "$target")" "$at"
}

subsystem() { link "$1/subsystem" "$2"; }

# block DIR NAME MAJOR MINOR DEVTYPE SIZE STAT [PARTN]
block() {
    local dir=$1 name=$2 major=$3 minor=$4 type=$5 size=$6 stat=$7 partn=${8:-}
    subsystem "$dir" class/block
    attr "$dir/dev" "$major:$minor"
    attr "$dir/size" "$size"
    attr "$dir/ro" 0
    attr "$dir/stat" "$stat"
    attr "$dir/alignment_offset" 0
    attr "$dir/inflight" "       0        0"
    if [[ $type == disk ]]; then
        attr "$dir/uevent" "MAJOR=$major" "MINOR=$minor" "DEVNAME=$name" "DEVTYPE=disk" "DISKSEQ=$((minor + 1))"
        attr "$dir/removable" 0
        attr "$dir/capability" 0
        attr "$dir/queue/logical_block_size" 512
        attr "$dir/queue/physical_block_size" 512
        attr "$dir/queue/rotational" 0
    else
        attr "$dir/uevent" "MAJOR=$major" "MINOR=$minor" "DEVNAME=$name" "DEVTYPE=partition" "PARTN=$partn"
        attr "$dir/partition" "$partn"
        attr "$dir/start" 2048
    fi
    link "class/block/$name" "$dir"
    link "dev/block/$major:$minor" "$dir"
}

pci_root() {
    attr devices/pci0000:00/uevent
}

# pci_function DIR VENDOR DEVICE CLASS DRIVER [LINK_SPEED LINK_WIDTH [MAX_SPEED MAX_WIDTH]]
# The maximum link is the current one unless given.
pci_function() {
    local dir=$1 vendor=$2 device=$3 class=$4 driver=$5 speed=${6:-} width=${7:-}
    local max_speed=${8:-${6:-}} max_width=${9:-${7:-}}
    subsystem "$dir" bus/pci
    link "$dir/driver" "bus/pci/drivers/$driver"
    attr "$dir/vendor" "$vendor"
    attr "$dir/device" "$device"
    attr "$dir/class" "$class"
    attr "$dir/revision" 0x00
    attr "$dir/enable" 1
    attr "$dir/numa_node" -1
    attr "$dir/uevent" "DRIVER=$driver" "PCI_CLASS=${class#0x}" \
        "PCI_ID=$(tr a-f A-F <<<"${vendor#0x}:${device#0x}")" "PCI_SLOT_NAME=$(basename "$dir")"
    if [[ -n $speed ]]; then
        attr "$dir/current_link_speed" "$speed"
        attr "$dir/current_link_width" "$width"
        attr "$dir/max_link_speed" "$max_speed"
        attr "$dir/max_link_width" "$max_width"
    fi
}

# nvme_tree PARTS [LANES]: the drive (a x4 device) and its root port, both linked at LANES (4).
nvme_tree() {
    local parts=$1 lanes=${2:-4}
    local fn=devices/pci0000:00/0000:00:1d.0/0000:3d:00.0
    local ctrl=$fn/nvme/nvme0 ns=$fn/nvme/nvme0/nvme0n1
    pci_root
    pci_function devices/pci0000:00/0000:00:1d.0 0x8086 0x02b0 0x060400 pcieport "8.0 GT/s PCIe" "$lanes"
    pci_function "$fn" 0x144d 0xa808 0x010802 nvme "8.0 GT/s PCIe" "$lanes" "8.0 GT/s PCIe" 4
    attr "$fn/subsystem_vendor" 0x144d
    attr "$fn/subsystem_device" 0xa801

    subsystem "$ctrl" class/nvme
    link "$ctrl/device" "$fn"
    attr "$ctrl/dev" 240:0
    attr "$ctrl/uevent" MAJOR=240 MINOR=0 DEVNAME=nvme0 NVME_TRTYPE=pcie
    attr "$ctrl/model" "Samsung SSD 970 EVO Plus 1TB"
    attr "$ctrl/serial" S4EWNX0R123456A
    attr "$ctrl/firmware_rev" 2B2QEXM7
    attr "$ctrl/transport" pcie
    attr "$ctrl/address" 0000:3d:00.0
    attr "$ctrl/state" live
    attr "$ctrl/cntlid" 4
    attr "$ctrl/queue_count" 9
    link class/nvme/nvme0 "$ctrl"

    block "$ns" nvme0n1 259 0 disk 1953525168 \
        "  152340     3021  9876544    40123    98211    12034  7654320   120345        0   190233   160468        0        0        0        0     2210     1234"
    link "$ns/device" "$ctrl"
    attr "$ns/wwid" eui.0025385b91b1c2d3
    attr "$ns/nsid" 1
    block "$ns/nvme0n1p1" nvme0n1p1 259 1 partition 1048576 \
        "     412        0    33418       97        2        0        2        0        0      128       97        0        0        0        0        0        0" 1
    block "$ns/nvme0n1p2" nvme0n1p2 259 2 partition 2097152 \
        "    1200       17    88120      420       63       11     1160       38        0      310      458        0        0        0        0        0        0" 2
    if ((parts >= 3)); then
        block "$ns/nvme0n1p3" nvme0n1p3 259 3 partition 1950377984 \
            "  150700     3004  9754998    39606    98146    12023  7653158   120307        0   189795   159913        0        0        0        0        0        0" 3
    fi
}

make_nvme_laptop() {
    nvme_tree 2
}

make_nvme_x1() {
    nvme_tree 2 1
}

make_dmcrypt_nvme() {
    nvme_tree 3
    local dm=devices/virtual/block/dm-0
    local p3=devices/pci0000:00/0000:00:1d.0/0000:3d:00.0/nvme/nvme0/nvme0n1/nvme0n1p3
    block "$dm" dm-0 254 0 disk 1950345216 \
        "  150688        0  9754812    41210    110169        0  7653140   135400        0   190122   176610        0        0        0        0        0        0"
    attr "$dm/uevent" MAJOR=254 MINOR=0 DEVNAME=dm-0 DEVTYPE=disk DISKSEQ=4
    attr "$dm/dm/name" luks-3f6a2c1e-8b0d-4c55-9e0a-2d7f1b9c4e11
    attr "$dm/dm/uuid" CRYPT-LUKS2-3f6a2c1e8b0d4c559e0a2d7f1b9c4e11-luks-3f6a2c1e-8b0d-4c55-9e0a-2d7f1b9c4e11
    attr "$dm/dm/suspended" 0
    attr "$dm/dm/use_blk_mq" 1
    link "$dm/slaves/nvme0n1p3" "$p3"
    link "$p3/holders/dm-0" "$dm"
}

# usb_device DIR BUS SPEED VERSION VENDOR PRODUCT MANUFACTURER PRODUCT-NAME DEVPATH DEVNUM CLASS
usb_device() {
    local dir=$1 bus=$2 speed=$3 version=$4 vendor=$5 product=$6 manufacturer=$7 name=$8 devpath=$9
    local devnum=${10} class=${11}
    subsystem "$dir" bus/usb
    link "$dir/driver" bus/usb/drivers/usb
    attr "$dir/speed" "$speed"
    attr "$dir/idVendor" "$vendor"
    attr "$dir/idProduct" "$product"
    attr "$dir/manufacturer" "$manufacturer"
    attr "$dir/product" "$name"
    attr "$dir/devpath" "$devpath"
    attr "$dir/devnum" "$devnum"
    attr "$dir/busnum" "$bus"
    attr "$dir/bDeviceClass" "$class"
    attr "$dir/version" "$version"
    attr "$dir/uevent" "MAJOR=189" "MINOR=$(((bus - 1) * 128 + devnum - 1))" \
        "DEVNAME=bus/usb/$(printf %03d "$bus")/$(printf %03d "$devnum")" "DEVTYPE=usb_device" "DRIVER=usb" \
        "PRODUCT=$(printf '%x/%x/100' $((16#$vendor)) $((16#$product)))" "BUSNUM=$(printf %03d "$bus")" \
        "DEVNUM=$(printf %03d "$devnum")"
}

# usb_disk DEVICE VENDOR MODEL: a mass-storage interface of DEVICE with the SCSI disk sdb (+sdb1).
usb_disk() {
    local dev=$1 vendor=$2 model=$3
    local intf=$dev/$(basename "$dev"):1.0
    local sdev=$intf/host6/target6:0:0/6:0:0:0
    subsystem "$intf" bus/usb
    link "$intf/driver" bus/usb/drivers/usb-storage
    attr "$intf/bInterfaceClass" 08
    attr "$intf/bInterfaceSubClass" 06
    attr "$intf/bInterfaceProtocol" 50
    attr "$intf/bInterfaceNumber" 00
    attr "$intf/uevent" DEVTYPE=usb_interface DRIVER=usb-storage "INTERFACE=8/6/80"

    subsystem "$intf/host6" bus/scsi
    attr "$intf/host6/uevent" DEVTYPE=scsi_host
    subsystem "$intf/host6/target6:0:0" bus/scsi
    attr "$intf/host6/target6:0:0/uevent" DEVTYPE=scsi_target
    subsystem "$sdev" bus/scsi
    link "$sdev/driver" bus/scsi/drivers/sd
    attr "$sdev/uevent" DEVTYPE=scsi_device DRIVER=sd MODALIAS=scsi:t-0x00
    attr "$sdev/vendor" "$vendor"
    attr "$sdev/model" "$model"
    attr "$sdev/rev" "1.00"
    attr "$sdev/type" 0
    attr "$sdev/scsi_level" 7
    attr "$sdev/state" running

    block "$sdev/block/sdb" sdb 8 16 disk 61341696 \
        "    2231      130   301254     1880     1024       88   524288    20450        0     6320    22330        0        0        0        0       12       40"
    attr "$sdev/block/sdb/removable" 1
    link "$sdev/block/sdb/device" "$sdev"
    block "$sdev/block/sdb/sdb1" sdb1 8 17 partition 61339648 \
        "    2101      130   297142     1790     1024       88   524288    20450        0     6200    22240        0        0        0        0        0        0" 1
}

# usb_stick_tree BUS ROOT_SPEED ROOT_VERSION ROOT_PRODUCT HUB_VERSION STICK_SPEED: the SanDisk stick
# (USB 3.20) behind a hub on root hub BUS of the xHCI controller.
usb_stick_tree() {
    local bus=$1 root_speed=$2 root_version=$3 root_product=$4 hub_version=$5 stick_speed=$6
    local xhci=devices/pci0000:00/0000:00:14.0
    local root=$xhci/usb$bus hub=$xhci/usb$bus/$bus-1 stick=$xhci/usb$bus/$bus-1/$bus-1.3
    pci_root
    pci_function "$xhci" 0x8086 0x9ded 0x0c0330 xhci_hcd
    usb_device "$root" "$bus" "$root_speed" "$root_version" 1d6b "$root_product" \
        "Linux 6.1.0-18-amd64 xhci-hcd" "xHCI Host Controller" 0 1 09
    usb_device "$hub" "$bus" "$stick_speed" "$hub_version" 05e3 0626 GenesysLogic "USB3.1 Hub" 1 2 09
    usb_device "$stick" "$bus" "$stick_speed" " 3.20" 0781 5583 SanDisk "Ultra Fit" 1.3 3 00
    attr "$stick/serial" 4C530001230518115294
    attr "$stick/bcdDevice" 0100
    attr "$stick/removable" removable
    usb_disk "$stick" "SanDisk " "Ultra Fit       "
}

make_usb_stick() {
    usb_stick_tree 2 10000 " 3.20" 0003 " 3.20" 5000
}

make_usb2_port() {
    usb_stick_tree 1 480 " 2.00" 0002 " 2.10" 480
}

make_usb_gen2() {
    local xhci=devices/pci0000:00/0000:00:14.0
    local root=$xhci/usb2 ssd=$xhci/usb2/2-2
    pci_root
    pci_function "$xhci" 0x8086 0x9ded 0x0c0330 xhci_hcd
    usb_device "$root" 2 10000 " 3.10" 1d6b 0003 "Linux 6.1.0-18-amd64 xhci-hcd" "xHCI Host Controller" 0 1 09
    usb_device "$ssd" 2 10000 " 3.10" 04e8 4001 Samsung "PSSD T7" 2 2 00
    attr "$ssd/serial" S5SXNS0R700123A
    attr "$ssd/bcdDevice" 0100
    attr "$ssd/removable" removable
    usb_disk "$ssd" "Samsung " "PSSD T7         "
}

# sata_tree SPEED: the disk on port ata1 of an AHCI controller, linked at SPEED on a 6.0 Gbps port.
sata_tree() {
    local speed=$1
    local ahci=devices/pci0000:00/0000:00:17.0
    local ata=$ahci/ata1
    local sdev=$ata/host0/target0:0:0/0:0:0:0
    pci_root
    pci_function "$ahci" 0x8086 0xa352 0x010601 ahci

    attr "$ata/uevent"
    subsystem "$ata/ata_port/ata1" class/ata_port
    attr "$ata/ata_port/ata1/port_no" 1
    attr "$ata/ata_port/ata1/nr_pmp_links" 0
    attr "$ata/ata_port/ata1/idle_irq" 0
    attr "$ata/ata_port/ata1/uevent"
    link class/ata_port/ata1 "$ata/ata_port/ata1"
    attr "$ata/link1/uevent"
    subsystem "$ata/link1/ata_link/link1" class/ata_link
    attr "$ata/link1/ata_link/link1/sata_spd" "$speed"
    attr "$ata/link1/ata_link/link1/hw_sata_spd_limit" "6.0 Gbps"
    attr "$ata/link1/ata_link/link1/sata_spd_limit" "<unknown>"
    attr "$ata/link1/ata_link/link1/uevent"
    link class/ata_link/link1 "$ata/link1/ata_link/link1"

    subsystem "$ata/host0" bus/scsi
    attr "$ata/host0/uevent" DEVTYPE=scsi_host
    subsystem "$ata/host0/target0:0:0" bus/scsi
    attr "$ata/host0/target0:0:0/uevent" DEVTYPE=scsi_target
    subsystem "$sdev" bus/scsi
    link "$sdev/driver" bus/scsi/drivers/sd
    attr "$sdev/uevent" DEVTYPE=scsi_device DRIVER=sd MODALIAS=scsi:t-0x00
    attr "$sdev/vendor" "ATA     "
    attr "$sdev/model" "Samsung SSD 860 "
    attr "$sdev/rev" 4B6Q
    attr "$sdev/type" 0
    attr "$sdev/scsi_level" 6
    attr "$sdev/state" running

    block "$sdev/block/sda" sda 8 0 disk 976773168 \
        "   88410     2911  6120842    30122    41009    35210  4482016    81230        0    92310   121000        0        0        0        0     5120     9870"
    link "$sdev/block/sda/device" "$sdev"
    block "$sdev/block/sda/sda1" sda1 8 1 partition 976771072 \
        "   88200     2911  6118410    30090    41009    35210  4482016    81230        0    92200   120940        0        0        0        0        0        0" 1
}

make_sata_disk() {
    sata_tree "6.0 Gbps"
}

make_sata_3g() {
    sata_tree "3.0 Gbps"
}

make_virtio_disk() {
    local fn=devices/pci0000:00/0000:00:02.0
    local vdev=$fn/virtio1
    pci_root
    pci_function "$fn" 0x1af4 0x1042 0x018000 virtio-pci
    subsystem "$vdev" bus/virtio
    link "$vdev/driver" bus/virtio/drivers/virtio_blk
    attr "$vdev/vendor" 0x1af4
    attr "$vdev/device" 0x0002
    attr "$vdev/status" 0x0000000f
    attr "$vdev/features" 0010101001110000000000000000110010000000000000000000000000000000
    attr "$vdev/uevent" DRIVER=virtio_blk "MODALIAS=virtio:d00000002v00001AF4"
    block "$vdev/block/vda" vda 254 0 disk 536870912 \
        "   31289     7505  2552514    16775     5995     6471   337112     1795        0    10272    19060     4705       78   177032      444      610       44"
    link "$vdev/block/vda/device" "$vdev"
    attr "$vdev/block/vda/serial" 0123456789
    block "$vdev/block/vda/vda1" vda1 254 1 partition 536868864 \
        "   30911     7505  2540130    16502     5995     6471   337112     1795        0    10150    18297        0        0        0        0        0        0" 1
}

make_loop() {
    local dir=devices/virtual/block/loop0
    block "$dir" loop0 7 0 disk 2097152 \
        "     581        0    12018       64        0        0        0        0        0      212       64        0        0        0        0        0        0"
    attr "$dir/loop/backing_file" /var/lib/vantorix/disk.img
    attr "$dir/loop/offset" 0
    attr "$dir/loop/sizelimit" 0
    attr "$dir/loop/autoclear" 0
    attr "$dir/loop/partscan" 0
    attr "$dir/loop/dio" 0
}

for name in nvme-laptop nvme-x1 usb-stick usb2-port usb-gen2 sata-disk sata-3g virtio-disk loop dmcrypt-nvme; do
    machine=$name
    rm -rf "$machine"
    mkdir -p "$machine"
    "make_${name//-/_}"
    # The buses and drivers that the links name, as directories with their uevent file.
    find "$machine" -xtype l -print0 | while IFS= read -r -d '' dangling; do
        target=$(realpath -m "$dangling")
        mkdir -p "$target"
        : >"$target/uevent"
    done
done
