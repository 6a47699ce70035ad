<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** One request, whichever way it came. */
final class Request
{
    /**
     * @param string $page the page that was asked, the source of its error blocks
     * @param string $client the address that it came from
     * @param \Closure(): string $url gives the authority's own address as this client knows it
     */
    public function __construct(
        public readonly string $page,
        public readonly Fields $fields,
        public readonly string $client,
        private readonly \Closure $url
    ) {
    }

    /** Address for the client to come back to. */
    public function url(): string
    {
        return ($this->url)();
    }
}
