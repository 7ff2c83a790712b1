# A name for each device class, by its number; to be sourced.
device_names=("Stratus Server GPU 9000" "Cirrus(TM) A770" "Stratus Edge GPU" "some other device" "Cirrus(TM) Graphics" "NBG 3")
