<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/**
 * The address under which a client reached the authority. A TLS front on this
 * machine tells it by X-Forwarded-Proto and X-Forwarded-Host; from any other
 * peer these headers count for nothing, for anyone could send them.
 */
final class Origin
{
    /** Host name, IPv4 address or bracketed IPv6 address, with an optional port. */
    private const HOST = '/^([A-Za-z0-9._-]{1,255}|\[[0-9A-Fa-f:.]{2,45}\])(:[0-9]{1,5})?$/D';

    /** @param array<string, mixed> $server the server variables of the request */
    public function __construct(private readonly array $server)
    {
    }

    /** True when a TLS front on this machine passed the request on. */
    public function isEncrypted(): bool
    {
        return $this->forwarded('HTTP_X_FORWARDED_PROTO') === 'https';
    }

    /** "http://host[:port]" or "https://host[:port]". */
    public function webUrl(): string
    {
        return ($this->isEncrypted() ? 'https://' : 'http://') . $this->host();
    }

    /** "vrmo://host[:port]". */
    public function channelUrl(): string
    {
        return 'vrmo://' . $this->host();
    }

    private function host(): string
    {
        $host = $this->forwarded('HTTP_X_FORWARDED_HOST') ?? $this->server['HTTP_HOST'] ?? '';
        if (preg_match(self::HOST, $host) !== 1) {
            throw new Refusal(Fault::BadRequest, 'The request does not name the host that it is meant for.');
        }
        return $host;
    }

    private function forwarded(string $header): ?string
    {
        $peer = $this->server['REMOTE_ADDR'] ?? '';
        $isLocal = $peer === '::1' || str_starts_with($peer, '127.');
        return $isLocal ? $this->server[$header] ?? null : null;
    }
}
