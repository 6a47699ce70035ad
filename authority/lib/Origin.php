<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/**
 * The address under which a client reached the authority, and the client's own.
 * The server that runs PHP tells them; a front on this machine tells them better,
 * by X-Forwarded-Proto, X-Forwarded-Host, X-Forwarded-Prefix and X-Forwarded-For.
 * From any other peer these headers count for nothing, for anyone could send them.
 */
final class Origin
{
    /** Host name, IPv4 address or bracketed IPv6 address, with an optional port. */
    private const HOST = '/^([A-Za-z0-9._-]{1,255}|\[[0-9A-Fa-f:.]{2,45}\])(:[0-9]{1,5})?$/D';

    /** A path, or none, of characters that mean nothing else in an address or a configuration file. */
    private const PREFIX = '#^((/[A-Za-z0-9._~%-]+)*)/?$#D';

    /** @param array<string, mixed> $server the server variables of the request */
    public function __construct(private readonly array $server)
    {
    }

    /** True when the client came by TLS, to this server or to a front on this machine. */
    public function isEncrypted(): bool
    {
        $proto = $this->forwarded('HTTP_X_FORWARDED_PROTO');
        return $proto !== null
            ? $proto === 'https'
            : !in_array(strtolower($this->server['HTTPS'] ?? ''), ['', 'off'], true);
    }

    /** "http://host[:port][/path]" or "https://host[:port][/path]", the pages' names left out. */
    public function webUrl(): string
    {
        return ($this->isEncrypted() ? 'https://' : 'http://') . $this->host() . $this->prefix();
    }

    /** "vrmo://host[:port]"; with the page when a path leads to it, because clients complete none. */
    public function channelUrl(): string
    {
        $prefix = $this->prefix();
        return 'vrmo://' . $this->host() . ($prefix === '' ? '' : "$prefix/" . basename($this->server['SCRIPT_NAME']));
    }

    /** The client's own address. A front may have put it behind those that the client sent. */
    public function client(): string
    {
        $addresses = explode(',', $this->forwarded('HTTP_X_FORWARDED_FOR') ?? '');
        $last = trim(end($addresses));
        return filter_var($last, FILTER_VALIDATE_IP) !== false ? $last : $this->server['REMOTE_ADDR'] ?? '';
    }

    private function host(): string
    {
        $host = $this->forwarded('HTTP_X_FORWARDED_HOST') ?? $this->server['HTTP_HOST'] ?? '';
        if (preg_match(self::HOST, $host) !== 1) {
            throw new Refusal(Fault::BadRequest, 'The request does not name the host that it is meant for.');
        }
        return $host;
    }

    /** The path in front of the pages: what a front has taken off the address, then what this server mounts them at. */
    private function prefix(): string
    {
        if (preg_match(self::PREFIX, $this->forwarded('HTTP_X_FORWARDED_PREFIX') ?? '', $removed) !== 1) {
            throw new Refusal(Fault::BadRequest, 'The request does not name the path that leads to the page.');
        }
        $steps = array_slice(explode('/', $this->server['SCRIPT_NAME'] ?? ''), 0, -1);
        return $removed[1] . implode('/', array_map(rawurlencode(...), $steps));
    }

    private function forwarded(string $header): ?string
    {
        $peer = $this->server['REMOTE_ADDR'] ?? '';
        $isLocal = $peer === '::1' || str_starts_with($peer, '127.');
        return $isLocal ? $this->server[$header] ?? null : null;
    }
}
