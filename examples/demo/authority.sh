# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# The demo's certificates, made by openssl in $secrets: an authority that the handset trusts, three gateways'
# certificates (a good one, a self-signed one, one that has expired) and the user's PKCS#12 bundle.

# shellcheck disable=SC2154  # shared with story.sh and its other parts
make_key() {
    openssl genrsa -out "$secrets/$1.key" 2048
}

# issue NAME SUBJECT USAGE DAYS: signed by the authority.
issue() {
    openssl req -new -key "$secrets/$1.key" -subj "$2" |
        openssl x509 -req -CA "$secrets/authority.pem" -CAkey "$secrets/authority.key" -CAcreateserial -days "$4" \
            -extfile <(printf 'basicConstraints=critical,CA:FALSE\nkeyUsage=digitalSignature\nextendedKeyUsage=%s\n' "$3") -out "$secrets/$1.pem"
}

make_certificates() {
    mkdir -p "$secrets" /var/ssl/trustedcerts
    make_key authority
    openssl req -x509 -new -key "$secrets/authority.key" -subj '/O=Demo/CN=Demo Authority' -days 2 \
        -out "$secrets/authority.pem"
    make_key gateway
    issue gateway '/O=Demo/CN=vpn.example' serverAuth 2
    cp "$secrets/gateway.key" "$secrets/asked.key"
    openssl req -x509 -new -key "$secrets/asked.key" -subj '/O=Somebody/CN=other.example' -days 2 -out "$secrets/asked.pem"
    # Valid for no time at all.
    cp "$secrets/gateway.key" "$secrets/refused.key"
    issue refused '/O=Demo/CN=old.example' serverAuth 0
    make_key user
    issue user '/O=Demo/CN=Demo User' clientAuth 2
    echo 'open sesame' >"$secrets/password"
    openssl pkcs12 -export -in "$secrets/user.pem" -inkey "$secrets/user.key" -name 'Demo User' \
        -passout "file:$secrets/password" -out "$secrets/user.p12"
    cp "$secrets/authority.pem" \
        "/var/ssl/trustedcerts/$(openssl x509 -noout -subject_hash -in "$secrets/authority.pem").0"
} >"$logs/openssl.log" 2>&1

# The installed certificate and the installed key belong together, as openssl reads them, and who may read the key.
installed_pair_fits() {
    [ "$(openssl x509 -noout -pubkey -in /var/ssl/certs/*.pem)" = "$(openssl pkey -pubout -in /var/ssl/private/rsa*.pem)" ] &&
        stat -c 'same public key in both, the key has mode %a' /var/ssl/private/rsa*.pem
}

fingerprint_by_openssl() {
    openssl x509 -noout -fingerprint -sha256 -in "$secrets/user.pem" | sed 's/.*=//; s/://g' | tr 'A-F' 'a-f'
}

unhex() {
    printf '%b' "$(sed 's/../\\x&/g' "$1")"
}

# What the certificate handle signs is verified by openssl with the certificate alone.
signature_by_openssl() {
    echo 'any message' >"$secrets/message"
    "$build/bin/vpnoalctl" certs sign 'Demo User' "$secrets/message" >"$secrets/signature.hex"
    unhex "$secrets/signature.hex" >"$secrets/signature"
    { openssl md5 -binary "$secrets/message" && openssl sha1 -binary "$secrets/message"; } >"$secrets/hash"
    openssl pkeyutl -verify -certin -inkey "$secrets/user.pem" -in "$secrets/hash" -sigfile "$secrets/signature" \
        -pkeyopt digest:md5-sha1
}

# A client that shows no certificate, and speaks what the gateway speaks.
handshake_without_certificate() {
    OPENSSL_CONF=/dev/null openssl s_client -connect 198.51.100.2:443 -tls1_1 -cipher DEFAULT:@SECLEVEL=0 </dev/null
}

# file_for GATEWAY ADDRESS NAME: another gateway's file.
file_for() {
    sed "s/198\.51\.100\.2\"/$2\"/; s/vpn\.example/$3/" "$here/gateway.json" >"$secrets/$1.json"
}
