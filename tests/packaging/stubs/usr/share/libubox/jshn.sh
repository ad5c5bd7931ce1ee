# Stand-in for OpenWrt's /usr/share/libubox/jshn.sh, for a flat object:
# json_init, json_add_string/int/boolean keep each field in shell
# variables, and json_dump hands them to a program that prints the object
# (the real one's "jshn -w" reads them from the environment the same way).
# shellcheck shell=sh

json_init() {
	_JSHN_N=0
}

_jshn_add() {
	_JSHN_N=$((_JSHN_N + 1))
	eval "_JSHN_T_$_JSHN_N=\$1; _JSHN_K_$_JSHN_N=\$2; _JSHN_V_$_JSHN_N=\$3"
	export "_JSHN_T_$_JSHN_N" "_JSHN_K_$_JSHN_N" "_JSHN_V_$_JSHN_N"
}

json_add_string() { _jshn_add string "$1" "$2"; }
json_add_int() { _jshn_add int "$1" "$2"; }
json_add_boolean() { _jshn_add boolean "$1" "$2"; }

json_dump() {
	_JSHN_N=$_JSHN_N python3 "${QZ_STUBS:?}/jshn_dump.py"
}
